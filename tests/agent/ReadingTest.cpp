// Backups of trees that change, deterministically and by a race, while they are read: each entry is taken as
// it is or reported, nothing is followed, and nothing hangs.
#include "testing/CallHook.h"
#include "testing/Flipper.h"
#include "testing/OrdinaryUser.h"
#include "testing/RepositoryFixture.h"
#include "testing/SelectionText.h"
#include "testing/Tree.h"

#include "agent/Repository/Chunker.h"
#include "agent/Repository/Lock.h"

#include "Backup/File/Unix/File.h"
#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YUnixFileMetadata.h"

#include "Krt/File/YDirectory.h"
#include "Krt/Log/YLog.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <sys/xattr.h>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

class Reading : public RepositoryFixture
{
protected:
    Reading() { Create(); }

    // Before each row.
    void SetUp() override
    {
        for (const char* name : {"source", "outside"})
            fs::remove_all(directory / name);
        MakeTree(directory.MakeDirectory("source"), {File("file", "12345"), Dir("dir"), Dir("dir/below")});
        MakeTree(directory.MakeDirectory("outside"),
                 {File("secret", "secret"), File("file", "secret"), Dir("below"),
                  File("below/file", "secret"), Link("link", "secret"), Socket("socket")});
        setxattr((directory / "outside/below").c_str(), "user.secret", "secret", 6, 0);
    }

    // All files are read, however old they are.
    ProgramResult BackUp(int exitCode, const ProgramSettings& settings = {}) const
    {
        return Run(exitCode, {"backup", "--force", source}, settings);
    }
    Agent::Repo::Node StoredNode(const std::string& path) const
    {
        const Agent::Repo::Repository opened = Open();
        return Agent::FindEntry(opened, opened.FindSnapshot("latest").snapshot.tree, path).node;
    }
    // By path below the source: the type, as ls shows it, and a file's content.
    std::map<std::string, std::string> Entries() const
    {
        const Agent::Repo::Repository opened = Open();
        const auto root = Agent::FindEntry(opened, opened.FindSnapshot("latest").snapshot.tree, source);
        std::map<std::string, std::string> stored;
        Agent::WalkTree(
            opened, *root.node.subtree, "",
            [&](const std::string& path, Agent::Repo::Node& node) {
                std::string& text = stored[path] = "-dlbcps?"[static_cast<int>(node.type)];
                Agent::Repo::Bytes blob;
                for (const Agent::Repo::Id& id : node.content.value_or(std::vector<Agent::Repo::Id>())) {
                    opened.LoadBlob({Agent::Repo::BlobType::Data, id}, blob);
                    text += Agent::Repo::AsText(blob);
                }
                if (node.type == Agent::Repo::NodeType::File && (node.mode & 0077) == 0)
                    text += ", private";
                EXPECT_TRUE(node.attributes.empty()) << "of an entry outside";
                EXPECT_NE(node.linkTarget, "secret") << "of a link outside";
                return Agent::Step::Into;
            },
            [](const std::string& path, const Krt::Exception::YError&) { ADD_FAILURE() << path; });
        return stored;
    }
};

// What happens in the source before a call of this function on an entry whose name ends so.
struct Change
{
    const char* function;
    const char* name;
    const char* commands;
    const char* stored; // of the file or the directory that is changed
    const char* reported;
};

// Before "fstatat", only the listing is known.
const Change Changes[] = {
    {"fstatat", "file", "rm file && mkdir -p file/inside", "d, entered", ""},
    {"openat", "file", "rm file && mkfifo file", "p", ""},
    {"openat", "file", "rm file && mknod file c 1 5", "c", ""},
    {"openat", "file", "mv ../outside/socket file", "nothing", ""},
    {"openat", "file", "mv file old && ln -s ../outside/secret file", "l", ""},
    {"openat", "file", "printf +++ > new && mv new file", "-+++", ""},
    {"openat", "file", "chmod 600 file", "-12345, private", ""},
    {"openat", "file", "rm file && mkdir file", "d", ""},
    {"openat", "file", "rm file", "nothing", "file: Failed to open file"},
    {"pread", "file", "rm file", "-12345", ""},
    {"pread", "file", "truncate -s 2 file", "-12", ""}, // it is read again
    {"pread", "file", "printf ++ >> file", "-12345++", ""},
    {"fstatat", "dir", "rm -r dir && printf + > dir", "-+", ""},
    {"fstatat", "dir", "mv dir old && ln -s ../outside/below dir", "l", ""},
    {"fstatat", "dir", "rm -r dir", "nothing", "dir: Failed to "},
    {"openat", "dir", "mv dir old && ln -s ../outside/below dir", "nothing", "dir: Failed to open directory"},
    {"openat", "dir", "mv dir old && mv ../outside/below dir", "nothing",
     "dir: The directory was replaced during the walk"},
    {"openat", "dir", "rm -r dir", "nothing", "dir: Failed to open directory"},
    {"llistxattr", "/below", "mv dir old && ln -s ../outside dir", "d", ""},
    {"readlink", "link", "mv dir old && ln -s ../outside dir", "d", ""},
};

TEST_F(Reading, EntryReplacedBeforeOpenIsReadAsFound)
{
    for (const Change& change : Changes) {
        SetUp();
        MakeTree(source, {Link("dir/link", "target")});
        const std::string name = change.name == std::string("file") ? "file" : "dir";
        const std::string label = change.function + (" " + name) + ": " + change.commands;
        bool isDone = false;
        const ProgramResult result = BackUp(-1, Hooked([&](const HookedCall& call) {
            if (isDone || !call.function.starts_with(change.function) || !call.name.ends_with(change.name))
                return;
            isDone = true;
            if (std::system(("cd " + source + " && " + change.commands + " 2>/dev/null").c_str()) != 0)
                _exit(99);
        }));
        if (result.exitCode == 99) {
            EXPECT_NE(label.find("mknod"), std::string::npos) << label << " takes root's rights";
            continue;
        }
        auto stored = Entries();
        const auto found = stored.find("/" + name);
        EXPECT_EQ((found == stored.end() ? "nothing" : found->second) +
                      (stored.count("/" + name + "/inside") != 0 ? ", entered" : ""),
                  change.stored)
            << label << result.errors;
        EXPECT_EQ(result.exitCode, *change.reported == '\0' ? 0 : 3) << label << result.errors;
        EXPECT_TRUE(Holds(result.errors, change.reported)) << label;
        EXPECT_FALSE(Holds(result.errors, "not entered")) << label;
        EXPECT_EQ(stored.count("/dir/file"), 0u) << label;
    }
}

// A limited number of directories is held open during the descent.
TEST_F(Reading, ClosedDirectoriesAreReopened)
{
    constexpr int Depth = 150;
    for (const bool isSwapped : {false, true}) {
        SetUp();
        std::string upper, level;
        for (int depth = 1; depth <= Depth; ++depth) {
            level += "/d";
            directory.Write("source" + level + "/later", "");
            if (depth == 10)
                upper = level;
        }
        directory.Write("source" + level + "/bottom", "");
        const ProgramResult result =
            BackUp(isSwapped ? 3 : 0, Hooked([&](const HookedCall& call) {
                       if (!isSwapped || call.function != "openat" || call.name != "bottom")
                           return;
                       fs::rename(source + upper, directory / "moved");
                       directory.Write("source" + upper + "/later", "");
                   }));
        auto stored = Entries();
        EXPECT_EQ(Holds(result.errors, upper + "/later: The directory above was replaced"), isSwapped);
        EXPECT_EQ(stored.count(upper + "/later"), !isSwapped);
        for (const std::string& directoryOfLater : {level, std::string("/d")})
            EXPECT_EQ(stored.count(directoryOfLater + "/later"), 1u);
    }
}

TEST_F(Reading, GrowingFileEndsAtItsSize)
{
    const auto grow = [&](const HookedCall& call) {
        if (call.function == "pread" && call.name.ends_with("file"))
            std::ofstream(source + "/file", std::ios::app) << std::string(1 << 20, '+');
    };
    const ProgramResult result = BackUp(0, Hooked(grow));
    EXPECT_TRUE(Holds(result.errors, "/file: Warning: the file changed while it was read"));
}

// The node does not have a change time that would prove the mode that it has.
TEST_F(Reading, ModeThatChangesDuringTheReadingIsFoundByTheNextRun)
{
    bool isDone = false;
    BackUp(0, Hooked([&](const HookedCall& call) {
               if (call.function == "pread" && call.name.ends_with("source/file") &&
                   !std::exchange(isDone, true))
                   chmod(call.name.c_str(), 0700);
           }));
    const Agent::Repo::Node node = StoredNode(source + "/file");
    struct stat status = {};
    ASSERT_EQ(stat((source + "/file").c_str(), &status), 0);
    EXPECT_TRUE(node.mode == Agent::Repo::MakeNodeMode(status.st_mode) ||
                node.ctime < Agent::Repo::Timestamp::Local(status.st_ctim.tv_sec, status.st_ctim.tv_nsec));
}

// Another process has looked for locks before.
TEST_F(Reading, LockThatComesWhileTheLockSettlesEndsTheRun)
{
    Agent::Repo::Lock lock;
    lock.time = Agent::Repo::Timestamp::Now();
    lock.isExclusive = true;
    lock.hostname = "elsewhere";
    Open().SaveText(Agent::Repo::FileKind::Lock, lock.ToJson());
    const fs::path file = Files("locks").front();
    fs::rename(file, directory / "lock");
    const ProgramResult result =
        BackUp(11, Hooked([&](const HookedCall& call) {
                   const bool isOfIndex = call.function == "getdents64" && call.name.ends_with("/index");
                   if (isOfIndex && fs::exists(directory / "lock"))
                       fs::rename(directory / "lock", file);
               }));
    EXPECT_TRUE(Holds(result.errors, "The repository is locked exclusively by PID 0 on elsewhere"));
    EXPECT_EQ(CountSnapshots(), 0u);
}

// As those of the kernel.
TEST_F(Reading, FileWhoseSizeIsWrongIsReadToItsEnd)
{
    constexpr std::size_t Blocks = 140;
    directory.Write("source/zero", "");
    std::size_t blocks = 0;
    const auto give = [&](const HookedCall& call) {
        if (call.function != "pread")
            return;
        if (call.name.ends_with("source/zero")) {
            CallHook::Give(call, std::string(blocks++ < Blocks ? call.size : 0, 'x'));
        } else if (call.name.ends_with("source/file")) {
            CallHook::Give(call, call.size == 5 ? "123" : "");
        }
    };
    const ProgramResult result = BackUp(0, Hooked(give));
    EXPECT_FALSE(Holds(result.errors, "changed")) << result.errors;
    EXPECT_EQ(Entries()["/zero"].size(), 1 + Blocks * Agent::Repo::Chunker::MinSize);
    EXPECT_EQ(Entries()["/file"], "-123");
}

TEST_F(Reading, AttributesThatCanNotBeReadAreReportedAndReadLater)
{
    constexpr const char* Name = "user.some";
    for (const std::string& path : {directory.Path(), source + "/dir", source + "/file"}) {
        if (setxattr(path.c_str(), Name, "x", 1, 0) != 0)
            GTEST_SKIP() << "this file system has no extended attributes";
    }
    const auto failWith = [](int error) {
        return Hooked([error](const HookedCall& call) {
            if (call.attribute == Name)
                CallHook::Fail(error);
        });
    };
    // A copy of the latest snapshot, by a user, whose entries are trusted, however new they are.
    const auto makeParent = [&](std::uint32_t uid) {
        const Agent::Repo::Repository opened = Open();
        Agent::Repo::Snapshot snapshot = opened.FindSnapshot("latest").snapshot;
        snapshot.time.seconds += 1000;
        snapshot.summary->backupStart.seconds += 1000;
        snapshot.uid = uid;
        return opened.SaveText(Agent::Repo::FileKind::Snapshot, snapshot.ToJson()).ToHex();
    };
    const ProgramResult failed = BackUp(3, failWith(EIO));
    for (const std::string& path : {directory.Path(), source + "/dir", source + "/file"}) {
        EXPECT_TRUE(Holds(failed.errors, path + ": Failed to get extended attribute user.some")) << path;
        EXPECT_TRUE(StoredNode(path).attributes.empty()) << path;
    }
    EXPECT_EQ(Entries()["/file"], "-12345");
    int later = 0; // so that each one is the latest
    const std::string withErrors = makeParent(geteuid());
    // As for a user who may not see it.
    Run(0, {"backup", "--force", "--time", "2090-01-01 00:00:00", source}, failWith(ENODATA));
    const std::string ofUser = makeParent(geteuid());
    const std::string ofOther = makeParent(geteuid() + 1);
    for (const auto& [parent, count] : {std::pair(withErrors, 1u), {ofUser, 0u}, {ofOther, 1u}}) {
        const std::string time = "210" + std::to_string(later++) + "-01-01 00:00:00";
        Run(0, {"backup", "--parent", parent, "--time", time, source});
        for (const char* path : {"/dir", "/file"})
            EXPECT_EQ(StoredNode(source + path).attributes.size(), count) << parent << path;
    }
}

TEST_F(Reading, SwappedEntriesLeadNowhereOutside)
{
    constexpr std::pair<const char*, const char*> Rows[] = {
        {"file", "to file"}, {"file", "fifo"}, {"dir", "to dir"}, {"dir/below", "to dir"}, {"dir", "file"}};
    unsigned long swaps = 0;
    for (const auto& [a, b] : Rows) {
        const auto plant = [&] {
            SetUp();
            MakeTree(source, {Link("to file", directory / "outside/secret"),
                              Link("to dir", directory / "outside"), Fifo("fifo")});
        };
        const auto backUp = [&, &a = a, &b = b] {
            const ProgramResult result = BackUp(-1);
            EXPECT_TRUE(result.exitCode == 0 || result.exitCode == 3) << a << result.errors;
            for (const auto& [path, text] : Entries())
                EXPECT_EQ(text.find("secret"), std::string::npos) << path << " " << b;
        };
        swaps += SwapDuring(source + "/" + a, source + "/" + b, plant, backUp);
    }
    RecordProperty("swaps", std::to_string(swaps));
}

TEST_F(Reading, ExcludedEntriesAreNotExamined)
{
    MakeTree(source, {Dir("dir/hidden"), File("dir/hidden/inside", "x"), File("dir/hidden.txt", "y")});
    for (const std::string pattern : {"nothing", "hidden*"}) {
        const std::string job =
            directory.Write("job", JobText("include " + source + " recursive any; silent " + source +
                                           " recursive glob=" + pattern));
        Run(pattern == "nothing" ? 99 : 0, {"backup", "--job", job}, Hooked([](const HookedCall& call) {
                if (call.name.find("hidden") != std::string::npos)
                    _exit(99);
            }));
    }
}

// A hundred thousand entries; a tenth in a debug build.
TEST_F(Reading, DirectoryOfManyEntriesIsBackedUp)
{
#ifdef NDEBUG
    constexpr int Count = 100000;
#else
    constexpr int Count = 10000;
#endif
    const auto many = Krt::File::YDirectory::Open(Krt::File::YPath((source + "/dir/below").c_str()));
    const char* const files[] = {"even", "odd"}; // of which each may have 65,000 names
    for (const char* file : files)
        many.CreateFile(file);
    for (int i = 2; i < Count; ++i)
        many.MakeHardLink(many, files[i % 2], std::to_string(i).c_str());
    EXPECT_TRUE(Holds(BackUp(0).output, " " + std::to_string(Count + 1) + " files, "));
}

// Entries are reached through the directories above them.
TEST_F(Reading, PathMayBeLongerThanTheSystemAllows)
{
    using Krt::File::YDirectory;
    const Krt::YString longName(std::string(250, 'n'));
    YDirectory level = YDirectory::Open(Krt::File::YPath((source + "/dir").c_str()));
    constexpr unsigned int Depth = 20;
    for (unsigned int i = 0; i < Depth; ++i) {
        level.CreateFile("a");
        level.CreateFile(longName + Krt::YString("z"));
        level.MakeDirectory(longName, 0700);
        level = level.OpenDirectory(longName);
    }
    EXPECT_EQ(BackUp(0).errors, "");
    EXPECT_EQ(Entries().size(), 3 + 3 * Depth);
    Run(0, {"restore", "latest", "--target", target});
}

TEST_F(Reading, KilledRunLeavesNoSnapshot)
{
    BackUp(0);
    MakeTree(source, {File("more", "more")});
    BackUp(128 + SIGKILL, Hooked([](const HookedCall& call) {
               if (call.function == "fsync" && call.name.find("/snapshots/") != std::string::npos)
                   raise(SIGKILL);
           }));
    EXPECT_EQ(Entries().count("/more"), 0u);
    BackUp(0);
    EXPECT_EQ(Entries()["/more"], "-more");
    Run(0, "unlock");
    EXPECT_TRUE(Holds(Run(0, "check --read-data").output, "no errors were found"));
}

TEST_F(Reading, WithoutStandardStreamsFilesStayIntact)
{
    for (unsigned int closed = 1; closed < 8; ++closed) {
        fs::remove_all(target);
        const auto closeSome = [closed] {
            for (int stream = 0; stream < 3; ++stream) {
                if ((closed >> stream & 1) != 0)
                    close(stream);
            }
        };
        // A restore prints before it begins.
        const bool isLost = (closed & 2) != 0;
        Run(3, {"backup", source, source + "/none"}, {.prepare = closeSome});
        for (const char* option : {"-v", "-q"})
            Run(isLost && option == std::string("-v") ? 3 : 0,
                {"restore", option, "latest", "--target", target, source + "/file"}, {.prepare = closeSome});
        EXPECT_EQ(ReadFile(target + source + "/file"), "12345") << closed;
    }
}

TEST(OpenedFile, WithoutStandardStreamsGetsNoOutput)
{
    const TemporaryDirectory directory;
    chmod(directory.Path().c_str(), 0777);
    const auto at = [&](const char* name) {
        return Krt::File::YPath((directory / name).c_str());
    };
    EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
        for (int stream = 0; stream < 3; ++stream)
            close(stream);
        const int primitive = Backup::File::OpenForBackupWrite(at("primitive"));
        using Backup::File::YFile;
        const YFile file(YFile::OPEN_MODE_WRITE, at("file"), YFile::OPT_NONE);
        const auto entry = Krt::File::YDirectory::Open(at("")).CreateFile("entry");
        const auto opened = Krt::File::Open(at("file"), Krt::File::OpenForReading);
        Krt::Log::YLog log;
        log.Open(Krt::Log::YLog::Param(at("log")));
        bool isLost = primitive > 2 && !entry.IsEmpty() && log.IsOpen() && opened.Get() > 2 &&
                      fcntl(opened.Get(), F_GETFD) == FD_CLOEXEC;
        for (int stream = 0; stream < 3; ++stream)
            isLost = isLost && write(stream, "output", 6) == -1;
        return isLost;
    }));
    for (const char* name : {"primitive", "file", "entry", "log"})
        EXPECT_EQ(fs::file_size(directory / name), 0u) << name;
}

} // namespace
