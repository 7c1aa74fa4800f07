// Backups of trees that change, deterministically and by a race, while they are read: each entry is taken as
// it is or told, nothing is followed, and nothing hangs.
#include "testing/CallHook.h"
#include "testing/Flipper.h"
#include "testing/OrdinaryUser.h"
#include "testing/Program.h"
#include "testing/SelectionText.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"

#include "Backup/File/Unix/File.h"
#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YUnixFileMetadata.h"

#include "Krt/JSON/YValue.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sys/sysmacros.h>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

class Reading : public ::testing::Test
{
protected:
    void SetUp() override
    {
        source = directory.MakeDirectory("source");
        MakeTree(source, {File("file", "12345"), Dir("dir"), Dir("dir/below")});
        MakeTree(directory.MakeDirectory("outside"),
                 {File("secret", "secret"), File("file", "secret"), Dir("below"),
                  File("below/file", "secret"), Link("link", "secret")});
        setxattr((directory / "outside/below").c_str(), "user.secret", "secret", 6, 0);
    }
    void Renew()
    {
        for (const char* name : {"source", "outside", "store"})
            fs::remove_all(directory / name);
        SetUp();
    }
    std::vector<std::string> Arguments() const { return {"backup", "--store", store, source}; }

    // By path below the source: the type, as ls shows it, and a file's content.
    std::map<std::string, std::string> Stored() const
    {
        const Agent::Store opened = Agent::Store::Open(store);
        Agent::SnapshotReader reader(opened, opened.FindSnapshot("latest"));
        std::map<std::string, std::string> stored;
        for (Agent::SnapshotEntry entry; reader.Next(entry);) {
            const auto metadata = Backup::File::YMetadataBase::ConstructFromJson(entry.record);
            const auto& record = metadata->AsUnixFileMetadata();
            std::string& text =
                stored[metadata->GetFilePath(0).GetFilesystemPortion().Bytes().substr(source.size())];
            text = std::string(1, "?pc?d?b?-?l?s???"[(record.GetModeFlags() & S_IFMT) >> 12]);
            if (entry.content)
                text += ReadObject(opened, *entry.content, entry.readSize.value_or(record.GetFileSize()));
            if (entry.content && (record.GetModeFlags() & 0077) == 0)
                text += ", private";
            EXPECT_TRUE(record.GetExtendedAttributeMap().empty()) << "of an entry outside";
            EXPECT_FALSE(entry.linkTarget) << record.GetSymbolicLinkTarget().Bytes() << " of a link outside";
        }
        return stored;
    }
    // Runs the program with an action before its system calls.
    static ProgramResult RunHooked(const std::vector<std::string>& arguments,
                                   const std::function<void(const HookedCall&)>& action)
    {
        ProgramSettings settings;
        settings.isLinked = true;
        settings.prepare = [&] {
            static const CallHook hook(action);
        };
        return RunProgram(arguments, settings);
    }

    TemporaryDirectory directory;
    std::string source;
    const std::string store = directory / "store";
};

using Text = const std::string&;

// What happens to source/file or source/dir before a call of this function on an entry whose name ends so.
struct Change
{
    const char* label;
    const char* function;
    const char* name;
    bool (*make)(Text entry, Text outside);
    const char* stored; // of the entry; null: nothing
    const char* told;
};

bool MakeNode(const std::string& path, mode_t mode, dev_t device = 0)
{
    return fs::remove(path) && mknod(path.c_str(), mode, device) == 0;
}

bool Append(const std::string& path, std::size_t count)
{
    std::FILE* const file = std::fopen(path.c_str(), "a");
    const bool isWritten = std::fwrite(std::string(count, '+').data(), 1, count, file) == count;
    return std::fclose(file) == 0 && isWritten;
}

bool ReplaceByLink(const std::string& entry, const std::string& target)
{
    return rename(entry.c_str(), (entry + ".old").c_str()) == 0 &&
           symlink(target.c_str(), entry.c_str()) == 0;
}

bool RenameTo(const std::string& from, const std::string& to)
{
    return rename(from.c_str(), to.c_str()) == 0;
}

const Change Changes[] = {
    {"to FIFO", "openat", "file", [](Text entry, Text) { return MakeNode(entry, S_IFIFO | 0644); }, "p", ""},
    {"to device", "openat", "file",
     [](Text entry, Text) { return MakeNode(entry, S_IFCHR | 0644, makedev(1, 5)); }, "c", ""},
    {"to socket", "openat", "file", [](Text entry, Text) { return MakeNode(entry, S_IFSOCK | 0644); },
     nullptr, "file: A socket is not stored"},
    {"to link", "openat", "file",
     [](Text entry, Text outside) { return ReplaceByLink(entry, outside + "/secret"); }, "l", ""},
    {"to another file", "openat", "file",
     [](Text entry, Text) { return Append(entry + ".new", 3) && RenameTo(entry + ".new", entry); }, "-+++",
     ""},
    {"to one with other rights", "openat", "file",
     [](Text entry, Text) { return chmod(entry.c_str(), 0600) == 0; }, "-12345, private", ""},
    {"to directory", "openat", "file",
     [](Text entry, Text) { return fs::remove(entry) && fs::create_directory(entry); }, "d", ""},
    {"gone", "openat", "file", [](Text entry, Text) { return fs::remove(entry); }, nullptr,
     "file: Failed to open file"},
    {"gone while it is read", "pread", "file", [](Text entry, Text) { return fs::remove(entry); }, "-12345",
     ""},
    {"shrinks", "pread", "file", [](Text entry, Text) { return truncate(entry.c_str(), 2) == 0; }, "-12",
     "file: The file changed while it was read: 2 bytes instead of 5"},
    {"grows", "pread", "file", [](Text entry, Text) { return Append(entry, 2); }, "-12345++",
     "file: The file changed while it was read: 7 bytes instead of 5"},
    {"to link", "openat", "dir",
     [](Text entry, Text outside) { return ReplaceByLink(entry, outside + "/below"); }, "d",
     "dir: Failed to open directory"},
    {"to another directory", "openat", "dir",
     [](Text entry, Text outside) {
         return RenameTo(entry, entry + ".old") && RenameTo(outside + "/below", entry);
     },
     "d", "dir: The directory was replaced during the walk"},
    {"gone", "openat", "dir", [](Text entry, Text) { return fs::remove_all(entry) == 3; }, "d",
     "dir: Failed to open directory"},
    {"to link, while what is below is read", "llistxattr", "/below",
     [](Text entry, Text outside) { return ReplaceByLink(entry, outside); }, "d", ""},
    {"to link, while a link in it is read", "readlink", "link",
     [](Text entry, Text outside) { return ReplaceByLink(entry, outside); }, "d", ""},
};

TEST_F(Reading, TakesAnEntryAsItIsWhenItIsOpened)
{
    for (const Change& change : Changes) {
        Renew();
        MakeTree(source, {Link("dir/link", "target")});
        const char* const name = change.name == std::string("file") ? "file" : "dir";
        bool isDone = false;
        const ProgramResult result = RunHooked(Arguments(), [&](const HookedCall& call) {
            if (isDone || !call.function.starts_with(change.function) || !call.name.ends_with(change.name))
                return;
            isDone = true;
            if (!change.make(source + "/" + name, directory / "outside"))
                _exit(99);
        });
        const std::string label = std::string(name) + " " + change.label;
        if (result.exitCode == 99) {
            EXPECT_EQ(label, "file to device") << "the one that takes root's rights";
            continue;
        }
        auto stored = Stored();
        const auto found = stored.find(std::string("/") + name);
        EXPECT_EQ(found == stored.end() ? "nothing" : found->second,
                  change.stored == nullptr ? "nothing" : change.stored)
            << label << result.errors;
        EXPECT_EQ(result.exitCode, *change.told == '\0' ? 0 : 3) << label << result.errors;
        EXPECT_NE(result.errors.find(change.told), std::string::npos) << label << result.errors;
        EXPECT_EQ(stored.count("/dir/file"), 0u) << label;
    }
}

TEST_F(Reading, AFileThatGrowsForEverHasAnEnd)
{
    const ProgramResult result = RunHooked(Arguments(), [&](const HookedCall& call) {
        if (call.function == "pread" && call.name.ends_with("file"))
            Append(source + "/file", 1 << 20);
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_NE(result.errors.find("bytes instead of 5"), std::string::npos) << result.errors;
}

TEST_F(Reading, StoresNothingFromOutsideWhileSomebodySwaps)
{
    constexpr std::pair<const char*, const char*> Rows[] = {
        {"file", "to file"}, {"file", "fifo"}, {"dir", "to dir"}, {"dir/below", "to dir"}, {"dir", "file"}};
    unsigned long swaps = 0;
    for (const auto& [a, b] : Rows) {
        unsigned long rowSwaps = 0;
        do {
            Renew();
            MakeTree(source, {Link("to file", directory / "outside/secret"),
                              Link("to dir", directory / "outside"), Fifo("fifo")});
            const Flipper flipper(source + "/" + a, source + "/" + b);
            const ProgramResult result = RunProgram(Arguments());
            EXPECT_TRUE(result.exitCode == 0 || result.exitCode == 3) << a << result.errors;
            for (const auto& [path, text] : Stored())
                EXPECT_EQ(text.find("secret"), std::string::npos) << path << " " << b;
            rowSwaps += flipper.GetSwaps();
        } while (rowSwaps < 2000);
        swaps += rowSwaps;
    }
    RecordProperty("swaps", std::to_string(swaps));
}

TEST_F(Reading, NothingExcludedIsLookedAt)
{
    MakeTree(source, {Dir("dir/hidden"), File("dir/hidden/inside", "x"), File("dir/hidden.txt", "y")});
    for (const char* pattern : {"nothing", "hidden*"}) {
        const auto rules = Testing::Tree("include " + source + " recursive any; silent " + source +
                                         " recursive glob=" + pattern);
        const std::string job =
            directory.Write("job", Krt::JSON::YValue::FromObject(rules.ToJSON("/")).Stringify(true).Bytes());
        const ProgramResult result =
            RunHooked({"backup", "--store", store, "--job", job}, [](const HookedCall& call) {
                if (call.name.find("hidden") != std::string::npos)
                    _exit(99);
            });
        EXPECT_EQ(result.exitCode, pattern == std::string("nothing") ? 99 : 0) << result.errors;
    }
}

// A hundred thousand; without optimisation a tenth.
TEST_F(Reading, BacksUpADirectoryOfManyEntries)
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
    const ProgramResult result = RunProgram(Arguments());
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    const std::string told = "\n" + std::to_string(Count + 4) + " entries: ";
    EXPECT_NE(result.output.find(told), std::string::npos) << result.output;
}

TEST_F(Reading, TellsAPlaceTooDeepToName)
{
    using Krt::File::YDirectory;
    const Krt::YString longName(std::string(250, 'n'));
    YDirectory level = YDirectory::Open(Krt::File::YPath((source + "/dir").c_str()));
    constexpr int Depth = 20;
    int nameable = 0;
    for (std::size_t length = source.size() + 4; nameable + 1 < Depth && length + 251 < 4096; length += 251)
        ++nameable;
    for (int i = 0; i < Depth; ++i) {
        level.CreateFile("a");
        level.CreateFile(longName + Krt::YString("z"));
        level.MakeDirectory(longName, 0700);
        level = level.OpenDirectory(longName);
    }
    const ProgramResult result = RunProgram(Arguments());
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    EXPECT_TRUE(result.errors.ends_with(": File name too long\n")) << result.errors;
    // Below the last directory that has a path there are still two files, however long theirs are.
    EXPECT_EQ(Stored().size(), 4u + 3u * static_cast<unsigned int>(nameable) + 2u);
    EXPECT_EQ(RunProgram({"restore", "--store", store, "--to", directory / "target"}).exitCode, 0);
}

TEST_F(Reading, AProgramWithoutStandardStreamsWritesNoneIntoAFile)
{
    MakeTree(source, {File("locked", "x", 0000), Socket("socket")});
    for (unsigned int closed = 1; closed < 8; ++closed) {
        fs::remove_all(store);
        const std::string target = directory / ("target" + std::to_string(closed));
        ProgramSettings settings;
        settings.prepare = [closed] {
            for (int stream = 0; stream < 3; ++stream) {
                if ((closed >> stream & 1) != 0)
                    close(stream);
            }
        };
        // A failure is told on one of the streams, and a summary on the other.
        const ProgramResult backup = RunProgram(Arguments(), settings);
        EXPECT_EQ(backup.exitCode, (closed & 2) != 0 ? 1 : 3) << closed << backup.errors;
        const ProgramResult restore =
            RunProgram({"restore", "--store", store, "--to", target, source + "/file"}, settings);
        EXPECT_EQ(restore.exitCode, (closed & 2) != 0 ? 1 : 0) << closed << restore.errors;
        EXPECT_EQ(ReadFile(target + source + "/file"), "12345") << closed;
    }
}

TEST(Library, WithoutStandardStreamsLetsNoOutputLandInAFile)
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
        bool isLost = primitive > 2 && !entry.IsEmpty();
        for (int stream = 0; stream < 3; ++stream)
            isLost = isLost && write(stream, "output", 6) == -1;
        return isLost;
    }));
    for (const char* name : {"primitive", "file", "entry"})
        EXPECT_EQ(fs::file_size(directory / name), 0u) << name;
}

} // namespace
