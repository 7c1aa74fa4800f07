// Restores from repositories: of what restic 0.14 has backed up, compared with the original and with restic's
// own restore; onto existing files; and from damaged and hostile repositories.
#include "agent/Access/WatchedBackend.h"
#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Pack.h"
#include "agent/Repository/Repository.h"
#include "agent/Repository/Sealing.h"
#include "agent/Restore/SnapshotRestore.h"

#include "testing/AccessList.h"
#include "testing/AwkwardNames.h"
#include "testing/RepositoryFixture.h"
#include "testing/RestoreFixture.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Testing;
using Agent::Repo::BlobType;
using Agent::Repo::FileKind;
using Agent::Repo::Id;
namespace Repo = Agent::Repo;
namespace fs = std::filesystem;

namespace {

class RepositoryRestore : public RestoreFixture
{
protected:
    // An empty repository, also in place of another.
    Repo::Repository Create(std::uint32_t version = 2) const
    {
        fs::remove_all(repository);
        return RestoreFixture::Create(version);
    }
    void BackUp(std::uint32_t version = 2) const
    {
        if (!fs::exists(repository))
            Create(version);
        Restic("backup --with-atime .", 0, "source");
    }
    // `exitCode` -1 is any.
    ProgramResult Restored(int exitCode, const std::vector<std::string>& more = {},
                           const std::string& snapshot = "latest") const
    {
        std::vector<std::string> arguments = {"restore", snapshot, "--target", target};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return Run(exitCode, arguments);
    }
    // A dry run changes nothing, and prints what the run after it does.
    void RestoredAsForeseen(int exitCode, std::vector<std::string> more = {}) const
    {
        const auto linesOf = [](const ProgramResult& result) {
            std::multiset<std::string> lines;
            std::istringstream all(result.output + result.errors);
            for (std::string line; std::getline(all, line);) {
                if (const std::size_t place = line.find("Would restore"); place != std::string::npos)
                    line.replace(place, 13, "Restored");
                if (!line.starts_with("Would create"))
                    lines.insert(line);
            }
            return lines;
        };
        more.insert(more.end(), {"-v", "--dry-run"});
        const std::string existing = Described(target);
        const auto foreseen = linesOf(Restored(exitCode, more));
        EXPECT_EQ(Described(target), existing);
        more.pop_back();
        EXPECT_EQ(linesOf(Restored(exitCode, more)), foreseen);
    }
    // Times have nanoseconds here.
    static std::string Described(const std::string& root)
    {
        std::string text = DescribeTree(root);
        std::set<std::string> times;
        for (const auto& entry : fs::recursive_directory_iterator(root)) {
            const struct stat status = Testing::StatusOf(entry.path());
            times.insert(entry.path().string().substr(root.size()) + " " +
                         std::to_string(status.st_mtim.tv_nsec) + "\n");
        }
        for (const std::string& time : times)
            text += time;
        return text;
    }
    static std::set<std::string> PathsIn(const std::string& root)
    {
        std::set<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(root))
            paths.insert(entry.path().string().substr(root.size()));
        return paths;
    }
    void ClearTarget()
    {
        fs::remove_all(target);
        fs::create_directory(target);
    }
    // A repository with a snapshot whose root is the last of the trees. Each text is made from the id before.
    void SaveTrees(const std::vector<std::function<std::string(const std::string& id)>>& trees) const
    {
        const auto opened = Create();
        SnapshotMaker maker(opened);
        maker.Add(BlobType::Data, "content");
        Id last;
        for (const auto& make : trees)
            last = maker.Add(BlobType::Tree, make(last.ToHex()));
        maker.Save(last);
    }
};

std::string NodeText(const std::string& name, const std::string& rest)
{
    return R"({"name":")" + name + R"(","mode":420,"mtime":"2001-09-09T01:46:40Z",)" +
           R"("atime":"2001-09-09T01:46:40Z","ctime":"2001-09-09T01:46:40Z","uid":0,"gid":0,)" + rest + "}";
}

std::string FileText(const std::string& name, unsigned int size = 7)
{
    return NodeText(name, R"("type":"file","size":)" + std::to_string(size) + R"(,"content":[")" +
                              Id::Of(Repo::AsBytes("content")).ToHex() + R"("])");
}

std::string DirectoryText(const std::string& name, const std::string& subtree)
{
    return NodeText(name, R"("type":"dir","content":null,"subtree":")" + subtree + "\"");
}

std::string TreeText(const std::string& nodes)
{
    return R"({"nodes":[)" + nodes + "]}\n";
}

std::string RandomText(std::mt19937& random, std::size_t size)
{
    std::string text(size, '\0');
    for (char& byte : text)
        byte = static_cast<char>(random());
    return text;
}

TEST_F(RepositoryRestore, EqualsWhatResticBackedUp)
{
    MakeTree(source, EveryKindOfEntry());
    fs::create_directory(source + "/names");
    for (const std::string& name : AwkwardNames())
        std::ofstream(source + "/names/" + name) << name;
    std::mt19937 random(1);
    std::ofstream(source + "/big") << RandomText(random, 40 << 20) << std::string(5 << 20, '\0') << "end";
    std::ofstream(source + "/owned") << "x";
    if (geteuid() == 0) {
        ASSERT_EQ(mknod((source + "/device").c_str(), S_IFCHR | 0640, makedev(1, 3)), 0);
        ASSERT_EQ(chown((source + "/owned").c_str(), 1234, 4321), 0);
        ASSERT_EQ(chmod((source + "/owned").c_str(), 06755), 0);
    }
    setxattr((source + "/owned").c_str(), "user.note", "\0\xFFvalue", 7, 0);
    GiveAccessList(source + "/owned", "access");
    GiveAccessList(source + "/dir", "default");
    const timespec times[2] = {{1, 123456789}, {-86400, 987654321}};
    ASSERT_EQ(utimensat(AT_FDCWD, (source + "/owned").c_str(), times, 0), 0);
    const timespec ofFifo[2] = {{5, 6}, {1000000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (source + "/fifo").c_str(), ofFifo, 0), 0);
    const std::string original = Described(source);
    for (const std::uint32_t version : {1, 2}) {
        fs::remove_all(repository);
        ClearTarget();
        BackUp(version);
        EXPECT_TRUE(Holds(Restored(0, {"--verify"}).output, "Summary: Restored "));
        EXPECT_EQ(StatusOf("fifo").st_atim.tv_nsec, 6) << "what is verified is read, unlike a FIFO";
        EXPECT_EQ(Described(target), original) << version;
        EXPECT_LT(StatusOf("big").st_blocks * 512, 43 << 20);
    }
    // What is equal is not loaded again.
    for (const fs::path& pack : Files("data"))
        if (fs::file_size(pack) > 1 << 20)
            fs::remove(pack);
    EXPECT_TRUE(Holds(Restored(0, {"-v", "--overwrite", "if-changed"}).output, "unchanged /big with size"));
    EXPECT_EQ(Described(target), original);
}

TEST_F(RepositoryRestore, ExistingFilesAreTreatedAsAsked)
{
    std::mt19937 random(2);
    const std::string content = RandomText(random, 9 << 20);
    MakeTree(source, {File("file", content, 0644, 2000)});
    BackUp();
    std::string other = content;
    other[5 << 20] ^= 1;
    const struct
    {
        const char* overwrite;
        long long time;
        const char* action; // with other content of equal size
    } rows[] = {{"always", 2000, "updated"},   {"if-changed", 2000, "unchanged"},
                {"if-changed", 3, "updated"},  {"if-newer", 1999, "updated"},
                {"if-newer", 2000, "skipped"}, {"never", 1, "skipped"}};
    for (const auto& row : rows) {
        ClearTarget();
        MakeTree(target, {File("file", other, 0600, row.time)});
        const bool isKept = row.action != std::string("updated");
        const auto inode = StatusOf("file").st_ino;
        // if-changed takes the file for equal, which only the verification finds out.
        const bool isWrong = isKept && row.overwrite == std::string("if-changed");
        const ProgramResult result =
            Restored(isWrong ? 3 : 0, {"-v", "--verify", "--overwrite", row.overwrite});
        EXPECT_TRUE(Holds(result.output, row.action)) << row.overwrite;
        EXPECT_EQ(ReadFile(target + "/file") == content, !isKept) << row.overwrite;
        EXPECT_EQ(StatusOf("file").st_ino == inode, isKept) << "what changes is renamed into place";
    }
    // A second name may be outside of the target: its attributes stay.
    ClearTarget();
    MakeTree(target, {File("file", content, 0600, 2000)});
    fs::create_hard_link(target + "/file", directory / "second");
    Restored(0);
    EXPECT_EQ(Testing::StatusOf(directory / "second").st_mode & 07777, 0600u);
    EXPECT_EQ(StatusOf("file").st_mode & 07777, 0644u);
}

TEST_F(RepositoryRestore, EqualEntriesStayUntouched)
{
    MakeTree(source, {Dir("d"), File("d/a", "content"), Hard("d/b", "d/a"), Hard("c", "d/a"),
                      File("x", "more"), Link("link", "x"), Fifo("fifo")});
    setxattr((source + "/x").c_str(), "user.note", "1", 1, 0);
    GiveAccessList(source + "/x", "access");
    BackUp();
    Restored(0);
    lsetxattr((target + "/link").c_str(), "security.selinux", "label", 5, 0); // as a system with labels does
    const auto changes = [this] {
        std::map<std::string, long long> times;
        for (const std::string& path : PathsIn(target)) {
            const timespec& time = StatusOf(path.substr(1)).st_ctim;
            if (!fs::is_directory(target + path) || fs::is_symlink(target + path))
                times[path] = time.tv_sec * 1000000000LL + time.tv_nsec;
        }
        return times;
    };
    const auto unchanged = changes();
    const std::string all = Restored(0, {"--overwrite", "if-changed"}).output;
    EXPECT_TRUE(Holds(all, "Summary: Restored 0 / 7 files/dirs (0 B / ") && Holds(all, ", skipped 7 "));
    EXPECT_EQ(Restored(0, {"--dry-run"}).output.find("unchanged"), std::string::npos);
    EXPECT_EQ(changes(), unchanged);
    lremovexattr((target + "/link").c_str(), "security.selinux");
    // What has too much, or has become a file of its own, does not stay.
    setxattr((target + "/x").c_str(), "user.more", "2", 1, 0);
    fs::remove(target + "/d/b");
    fs::copy_file(source + "/d/b", target + "/d/b");
    RestoredAsForeseen(0);
    EXPECT_EQ(Described(target), Described(source));
}

TEST_F(RepositoryRestore, LostLockEndsRunWithoutFailures)
{
    struct Losing : Agent::WatchedBackend
    {
        using WatchedBackend::WatchedBackend;
        void Load(const Repo::FileName& file, std::uint64_t offset, std::uint64_t length,
                  Repo::Bytes& out) override
        {
            WatchedBackend::Load(file, offset, length, out);
            if (++loaded == 2) // the root's tree, for what --delete keeps and for the walk
                ReportLostLock();
        }
        int loaded = 0;
    };
    SaveTrees({[](auto&) { return TreeText(FileText("file")); },
               [](auto& id) {
                   return TreeText(DirectoryText("dir", id));
               }});
    auto opened = Repo::Repository::Open(
        std::make_shared<Losing>(std::make_shared<Repo::LocalBackend>(repository.c_str())),
        Repo::Secret(Repo::AsBytes("secret")));
    opened.LoadIndex();
    Agent::RestoreSettings settings;
    settings.deletes = true;
    Agent::Report report;
    Agent::SnapshotRestore run(opened, Krt::File::YDirectory::Open(target.c_str()), settings, report);
    EXPECT_THROW(run.Run(opened.FindSnapshot("latest").snapshot.tree), Agent::LockLost);
    EXPECT_EQ(report.GetFailed(), 0u);
}

TEST_F(RepositoryRestore, PatternsChooseWhatResticChooses)
{
    MakeTree(source,
             {Dir("a"), Dir("a/b"), Dir("a/b/c"), File("a/b/c/x.txt", "1"), File("a/b/x.c", "2"),
              File("a/X.TXT", "3"), Dir("foo"), File("foo/bar", "4"), Dir("a/foo"), File("a/foo/bar", "5"),
              File("a/[z]", "6"), File("a/\xC3\xA4", "7"), File("a/\xFF", "8")});
    BackUp();
    for (const std::vector<std::string>& options :
         std::vector<std::vector<std::string>>{{"--include", "*.txt"},
                                               {"--include", "/a/b"},
                                               {"--include", "/a/**/x*"},
                                               {"--include", "foo/bar"},
                                               {"--include", "/foo/bar", "--include", "c/"},
                                               {"--iinclude", "*.TxT"},
                                               {"--include", "/a/?"},
                                               {"--include", "/a/\\[z]"},
                                               {"--include", "a/*", "--include", "!/a/b"},
                                               {"--exclude", "*.txt"},
                                               {"--exclude", "/a/foo"},
                                               {"--exclude", "foo"},
                                               {"--exclude", "b/**/x*"},
                                               {"--iexclude", "x.*"},
                                               {"--exclude", "[^a]*", "--exclude", "!foo"},
                                               {"--exclude", "/**/bar"}}) {
        ClearTarget();
        const std::string theirs = directory / "theirs";
        fs::remove_all(theirs);
        fs::create_directory(theirs);
        std::string quoted;
        for (const std::string& option : options)
            quoted += " '" + option + "'";
        Restic("restore latest --target " + theirs + quoted);
        Restored(0, options);
        EXPECT_EQ(PathsIn(target), PathsIn(theirs)) << quoted;
    }
    std::ofstream(directory / "patterns") << "# x.txt\n\n  $NOTHING[^${NOTHING}a]*\t\r\n!foo\n";
    ClearTarget();
    Restored(0, {"--exclude-file", directory / "patterns"});
    EXPECT_EQ(PathsIn(target), (std::set<std::string>{"/a", "/a/foo", "/a/foo/bar", "/foo", "/foo/bar"}));
    std::ofstream(directory / "patterns") << "# nothing";
    Restored(2, {"--include-file", directory / "patterns"});
    ClearTarget();
    Restored(0, {"/a/foo", "/a/\\xff", "/a/b/x.c"});
    EXPECT_EQ(PathsIn(target),
              (std::set<std::string>{"/a", "/a/b", "/a/b/x.c", "/a/foo", "/a/foo/bar", "/a/\xFF"}));
    EXPECT_EQ(StatusOf("a/b").st_mtime, 1000000000);
    ClearTarget();
    Restored(0, {}, "latest:/a/foo");
    EXPECT_EQ(PathsIn(target), (std::set<std::string>{"/bar"}));
    EXPECT_TRUE(Holds(Restored(3, {"/a", "/no such"}).errors, "/no such: The snapshot has no entry"));
    EXPECT_TRUE(Holds(Restored(1, {"1a2b3c4d"}).errors, "after the snapshot are paths"));
    EXPECT_TRUE(Holds(Restored(0, {"--include", "/nothing"}).errors, "No entry matches the patterns"));
    Restored(2, {"--include", "[a"});
    Restored(2, {"--include", "a", "--exclude", "b"});
}

TEST_F(RepositoryRestore, DeletesOnlyWhatTheSnapshotLacks)
{
    MakeTree(source,
             {Dir("dir"), File("dir/kept", "1"), File("file", "2"), Dir("other"), File("other/x", "3")});
    BackUp();
    const auto clutter = [this] {
        ClearTarget();
        MakeTree(target, {Dir("dir"), Dir("dir/more"), File("dir/more/x", "x"), File("dir/extra.c", "x"),
                          Link("dir/outside", directory / "outside"), Dir("file"), File("file/below", "x"),
                          Link("other", directory / "outside"), File("new", "x")});
    };
    clutter();
    const std::string foreseen = Restored(0, {"--delete", "-n"}).output;
    EXPECT_TRUE(Holds(foreseen, "deleted   /dir/more/x\n"));
    EXPECT_EQ(Restored(0, {"--delete", "-n", "-q"}).output.find("Summary: Would restore"), 0u);
    EXPECT_TRUE(
        Holds(foreseen, "\nWould create 2 (2 B), replace 2 (1 B), keep 1, remove 8, change attributes of "));
    EXPECT_TRUE(Holds(Restored(0, {"--delete", "-n", "--json"}).output,
                      R"("dry_run":true,"files_created":2,"bytes_created":2,"files_replaced":2,)"
                      R"("bytes_replaced":1,"directories_updated":)"));
    RestoredAsForeseen(0, {"--delete"});
    EXPECT_EQ(Described(target), Described(source));
    clutter();
    RestoredAsForeseen(3);
    EXPECT_TRUE(Holds(Restored(3).errors, "/file: There is a directory at its path; --delete replaces it"));
    EXPECT_TRUE(Holds(Restored(3).errors, "/other: There is a symlink instead of a directory: other"));
    EXPECT_FALSE(Holds(Restored(3, {"--verify"}).errors, "/other/x: ")) << "one error for all";
    clutter();
    Restored(-1, {"--delete", "--include", "/dir/*.c"});
    EXPECT_FALSE(fs::exists(target + "/dir/extra.c"));
    EXPECT_TRUE(fs::exists(target + "/dir/more/x") && fs::exists(target + "/new"));
    clutter();
    Restored(0, {"--delete", "--exclude", "*.c", "--exclude", "x"});
    EXPECT_TRUE(fs::exists(target + "/dir/extra.c") && fs::exists(target + "/dir/more/x"));
    EXPECT_FALSE(fs::exists(target + "/new") || fs::is_symlink(target + "/dir/outside"));
    // Of a directory whose tree can't be read, nothing is known to be missing.
    clutter();
    SaveTrees({[](auto&) {
        return TreeText(DirectoryText("dir", std::string(64, '7')));
    }});
    Restored(3, {"--delete"});
    EXPECT_TRUE(fs::exists(target + "/dir/more/x") && !fs::exists(target + "/new"));
}

TEST_F(RepositoryRestore, DamageFailsOnlyWhatNeedsIt)
{
    std::mt19937 random(3);
    std::vector<TreeEntry> entries;
    for (int i = 0; i < 12; ++i) {
        entries.push_back(Dir("d" + std::to_string(i)));
        for (int j = 0; j < 5; ++j)
            entries.push_back(File("d" + std::to_string(i) + "/f" + std::to_string(j),
                                   RandomText(random, random() % 3000)));
    }
    MakeTree(source, entries);
    BackUp();
    const std::string sound = directory / "sound";
    fs::copy(repository, sound, fs::copy_options::recursive);
    for (int round = 0; round < 12; ++round) {
        fs::remove_all(repository);
        fs::copy(sound, repository, fs::copy_options::recursive);
        ClearTarget();
        const std::vector<fs::path> packs = Files("data");
        const fs::path pack = packs[random() % packs.size()];
        fs::permissions(pack, fs::perms::owner_all);
        std::string bytes = ReadFile(pack);
        const std::size_t place = random() % bytes.size();
        if (round % 4 == 0)
            bytes.resize(place);
        else
            bytes[place] = static_cast<char>(bytes[place] ^ (1 << random() % 8));
        std::ofstream(pack, std::ios::binary | std::ios::trunc) << bytes;
        const ProgramResult result = Restored(-1);
        std::size_t missing = 0;
        for (const auto& entry : fs::recursive_directory_iterator(source)) {
            const std::string name = entry.path().string().substr(source.size());
            if (!entry.is_regular_file())
                continue;
            if (fs::exists(target + name)) {
                EXPECT_EQ(ReadFile(target + name), ReadFile(source + name));
                continue;
            }
            ++missing;
            EXPECT_TRUE(Holds(result.errors, name + ": ") ||
                        Holds(result.errors, name.substr(0, name.rfind('/')) + ": ") ||
                        Holds(result.errors, "/: "))
                << name;
        }
        EXPECT_EQ(result.exitCode, missing != 0 ? 3 : 0) << result.errors; // the pack's header is not needed
        EXPECT_TRUE(round % 4 == 0 || missing < 60 || Holds(result.errors, "/: ")) << "only what needs it";
    }
}

TEST_F(RepositoryRestore, HostileTreesReachNothingOutside)
{
    const std::string good = FileText("zgood");
    for (const char* name : {"..", "../outside/dir/file", "a/b", "/etc/x", ".", "", "x\\u0000y", "\\\\x2e.",
                             "\\\\x2e\\\\x2e", "a\\\\x2fb", "x\\\\x00"}) {
        ClearTarget();
        SaveTrees({[&](auto&) { return TreeText(FileText("a") + "," + FileText(name)); },
                   [&](auto& id) {
                       return TreeText(DirectoryText("dir", id) + "," + good);
                   }});
        EXPECT_TRUE(Holds(Restored(3).errors, "/dir: ")) << name;
        EXPECT_EQ(PathsIn(target), (std::set<std::string>{"/dir", "/dir/a", "/zgood"})) << name;
    }
    const std::string link = NodeText("a", R"("type":"symlink","linktarget":"../outside","content":null)");
    const struct
    {
        std::string nodes; // of the root
        const char* message;
    } rows[] = {
        {link + "," + DirectoryText("a", "ID"), "the directory has another entry of this name"},
        {FileText("a") + "," + FileText("a"), "the directory has another entry of this name"},
        {FileText("a", 8), "/a: The size of the file is 8, but its blobs have 7 bytes"},
        {NodeText("a", R"("type":"file","content":null)"), "/a: The file has no list of blobs"},
        {NodeText("a", R"("type":"file","size":1,"content":[")" + std::string(64, '5') + R"("])"), "/a: "},
        {NodeText("a", R"("type":"dir","content":null)"), "/a: The directory has no tree"},
        {NodeText("a", R"("type":"symlink","content":null)"),
         "/a: The snapshot has no target for the symlink"},
        {NodeText("a", R"("type":"fifo","extended_attributes":[{"name":"","value":""}])"),
         "/a: attribute without a name not restored"},
        {NodeText("a", R"("type":"other","content":null)"), "/a: The type of the entry is not known"},
    };
    for (const auto& row : rows) {
        ClearTarget();
        SaveTrees({[&](auto&) { return TreeText(FileText("file")); },
                   [&](auto& id) {
                       std::string nodes = row.nodes;
                       if (const std::size_t place = nodes.find("ID"); place != std::string::npos)
                           nodes.replace(place, 2, id);
                       return TreeText(nodes + "," + good);
                   }});
        EXPECT_TRUE(Holds(Restored(3).errors, row.message));
        EXPECT_EQ(ReadFile(target + "/zgood"), "content");
    }
    // A symlink in the target is not followed either.
    ClearTarget();
    MakeTree(target, {Link("dir", directory / "outside/dir"), Link("zgood", directory / "outside/file")});
    SaveTrees({[&](auto&) { return TreeText(FileText("file")); },
               [&](auto& id) {
                   return TreeText(DirectoryText("dir", id) + "," + good);
               }});
    EXPECT_TRUE(Holds(Restored(3, {"--json"}).output, R"("entries_failed":1})"));
    EXPECT_EQ(PathsIn(target), (std::set<std::string>{"/dir", "/zgood"}));
    EXPECT_EQ(ReadFile(target + "/zgood"), "content");
}

TEST_F(RepositoryRestore, OrdinaryUserGetsFilesWithoutTheirOwners)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make files of another user";
    MakeSnapshot({Directory("dir", {FileWith("a", "1"), FileWith("b", "2", 06755)})});
    GiveToOrdinaryUser();
    for (const char* output : {"Summary: Restored 3 files/dirs", "skipped 3 files/dirs"}) {
        const auto result = Restore(0, {.user = OrdinaryUser});
        EXPECT_TRUE(Holds(result.output, output)) << result.output;
        EXPECT_EQ(StatusOf("dir/b").st_mode & 07777, 0755u);
        const std::size_t note = result.errors.find("Owners are not restored by an ordinary user");
        EXPECT_NE(note, std::string::npos);
        EXPECT_EQ(result.errors.find("wner", note + 3), std::string::npos);
    }
}

TEST_F(RepositoryRestore, OrdinaryUserRestoresAttributesOfReadOnlyFileAgain)
{
    SaveTrees({[](auto&) {
        std::string text = FileText("a");
        text.replace(text.find("420"), 3, "292");
        text.insert(text.find(R"("type")"), R"("extended_attributes":[{"name":"user.a","value":"Yg=="}],)");
        std::string unreadable = FileText("b");
        return TreeText(text + "," + unreadable.replace(unreadable.find("420"), 3, "128"));
    }});
    const std::string command =
        "chown 65534 " + directory.Path() + " && chown -R 65534 " + repository + " " + target;
    ASSERT_EQ(std::system(command.c_str()), 0);
    const auto prepare = [] {
        setenv("KBAGENT_PASSWORD", "secret", 1);
    };
    for (int round = 0; round < 2; ++round) {
        const auto result = RunProgram({"restore", "-r", repository, "-t", target, "latest", "--verify"},
                                       {.user = OrdinaryUser, .prepare = prepare});
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        EXPECT_TRUE(Holds(result.output, "verified 1 files 7 B, 1 not verified")) << result.output;
        char value = 0;
        EXPECT_EQ(getxattr((target + "/a").c_str(), "user.a", &value, 1), 1);
        EXPECT_EQ(value, 'b');
        setxattr((target + "/a").c_str(), "user.a", "c", 1, 0);
    }
}

TEST_F(RepositoryRestore, FilesInDirectoriesWithoutRightsAreVerifiedAndStay)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "root can read each directory";
    MakeSnapshot({Directory("d",
                            {FileWith("a", "1"), LinkTo("l", "a"),
                             Directory("e", {FileWith("b", std::string(1 << 20, 'b'))}, 0300)},
                            0)});
    GiveToOrdinaryUser();
    ino_t inode = 0;
    for (const char* output : {"Restored 5 files/dirs (1.000 MiB)", "skipped 5 files/dirs 1.000 MiB"}) {
        const auto result = Restore(0, {.user = OrdinaryUser}, {"--verify"});
        EXPECT_TRUE(Holds(result.output, output)) << result.output;
        EXPECT_TRUE(Holds(result.output, "verified 2 files")) << result.output << result.errors;
        EXPECT_EQ(StatusOf("d").st_mode & 07777, 0u);
        EXPECT_EQ(StatusOf("d/e").st_mode & 07777, 0300u);
        EXPECT_EQ(StatusOf("d/e").st_mtim.tv_sec, 1000000000);
        EXPECT_TRUE(inode == 0 || inode == StatusOf("d/e/b").st_ino);
        inode = StatusOf("d/e/b").st_ino;
    }
}

TEST_F(RepositoryRestore, KeptFileStaysInDirectoryThatCanNotBeRead)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "root can read each directory";
    SaveTrees({[](auto&) { return TreeText(FileText("a")); },
               [](auto& id) {
                   return TreeText(DirectoryText("dir", id));
               }});
    fs::create_directory(target + "/dir");
    directory.Write("target/dir/a", "kept");
    ASSERT_EQ(
        std::system(
            ("chown 65534 " + directory.Path() + " && chown -R 65534 " + repository + " " + target).c_str()),
        0);
    for (const char* overwrite : {"never", "if-newer"}) {
        ASSERT_EQ(chmod((target + "/dir").c_str(), 0300), 0);
        const auto result =
            RunProgram({"restore", "-r", repository, "-t", target, "latest", "--overwrite", overwrite},
                       {.user = OrdinaryUser, .prepare = [] {
                            setenv("KBAGENT_PASSWORD", "secret", 1);
                        }});
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        EXPECT_EQ(ReadFile(target + "/dir/a"), "kept") << overwrite;
    }
}

TEST_F(RepositoryRestore, OneEntryThatFailsDoesNotEndTheRun)
{
    SaveTrees({[](auto&) {
                   return TreeText(
                       FileText("file") + "," + FileText("short", 100) + "," +
                       NodeText("z", R"("type":"symlink","linktarget":"a\u0000b","content":null)"));
               },
               [](auto& id) {
                   return TreeText(DirectoryText("a", std::string(64, '7')) + "," + DirectoryText("b", id));
               }});
    Restored(3, {"/a/x", "/b/file"});
    EXPECT_TRUE(fs::exists(target + "/b/file"));

    std::string deep = target;
    for (int i = 0; i < 1100; ++i)
        deep += "/d";
    ASSERT_EQ(std::system(("mkdir -p " + deep).c_str()), 0);
    const std::string errors = Restored(3, {"--delete"}).errors;
    EXPECT_TRUE(Holds(errors, "more than 1000 levels deep"));
    EXPECT_TRUE(Holds(errors, "no symlink can have this target") &&
                !fs::exists(fs::symlink_status(target + "/b/z")));
    EXPECT_TRUE(Holds(errors, "The size of the file is 100, but its blobs have 7 bytes"));
    for (const char* path : {"/b/short", "/a"}) {
        const auto prepare = [] {
            setenv("KBAGENT_PASSWORD", "secret", 1);
        };
        EXPECT_EQ(RunProgram({"dump", "-r", repository, "latest", path}, {.prepare = prepare}).exitCode, 1)
            << path;
    }
}

// A file that changes during its backup.
TEST_F(RepositoryRestore, NamesOfOneInodeWithOtherContentAreSeparate)
{
    const std::string inode = R"("inode":7,"device_id":8,"links":3,)";
    SaveTrees({[&](auto&) {
        const auto linked = [&](std::string text) {
            return text.insert(text.find(R"("type")"), inode);
        };
        return TreeText(linked(FileText("a")) + "," +
                        linked(NodeText("b", R"("type":"file","size":0,"content":[])")) + "," +
                        linked(NodeText("c", R"("type":"symlink","linktarget":"x","content":null)")) + "," +
                        linked(FileText("d")));
    }});
    const auto check = [this](const std::string& notes) {
        EXPECT_TRUE(Holds(notes, "/b: It has the inode of another entry, but not its content"));
        EXPECT_FALSE(Holds(notes, "/d: "));
        EXPECT_EQ(ReadFile(target + "/a"), "content");
        EXPECT_EQ(ReadFile(target + "/b"), "");
        EXPECT_TRUE(fs::is_symlink(target + "/c"));
        EXPECT_TRUE(fs::equivalent(target + "/a", target + "/d"));
    };
    check(Restored(0, {"--verify"}).errors);
    const std::string archive = directory / "archive";
    const auto dumped = Run(0, {"dump", "--target", archive, "latest", "/"});
    ClearTarget();
    ASSERT_EQ(std::system(("tar -C " + target + " -xf " + archive).c_str()), 0) << dumped.errors;
    check(dumped.errors);
}

TEST_F(RepositoryRestore, TimesThatCanNotBeStoredAreReportedOnce)
{
    const auto late = [](std::string text) {
        return text.replace(text.find("2001"), 4, "2600");
    };
    const std::string link = NodeText("d", R"("type":"symlink","linktarget":"b")");
    SaveTrees(
        {[&](auto&) { return TreeText(late(FileText("b")) + "," + late(FileText("c")) + "," + late(link)); },
         [&](auto& id) {
             return TreeText(late(DirectoryText("a", id)));
         }});
    const std::string notes = Restored(0).errors;
    const bool isStored = StatusOf("a/b").st_mtime == 19902592000; // 2600-09-09
    const std::size_t first = notes.find("can't store this time");
    EXPECT_EQ(first == std::string::npos, isStored) << notes;
    EXPECT_EQ(notes.find("can't store", first + 1), std::string::npos) << notes;
    EXPECT_TRUE(Holds(Restored(0, {"--overwrite", "if-changed"}).output, ", skipped 4 files/dirs"));
}

TEST_F(RepositoryRestore, RandomTreesComeBack)
{
    const int rounds = Rounds("RESTORE_ROUNDS", 20);
    std::mt19937 random(4);
    for (int round = 0; round < rounds; ++round) {
        fs::remove_all(source);
        fs::create_directory(source);
        ClearTarget();
        std::vector<TreeEntry> entries;
        std::vector<std::string> directories = {""}, files;
        for (int i = 0; i < 60; ++i) {
            const std::string name = directories[random() % directories.size()] + std::to_string(i);
            const auto mode = static_cast<unsigned int>(0400 + random() % 0400);
            switch (random() % 5) {
            case 0:
                entries.push_back(Dir(name, mode | 0700));
                directories.push_back(name + "/");
                break;
            case 1:
                entries.push_back(Link(name, RandomText(random, 1).find('\0') == 0 ? "x" : "../" + name));
                break;
            case 2:
                if (!files.empty()) {
                    entries.push_back(Hard(name, files[random() % files.size()]));
                    break;
                }
                [[fallthrough]];
            default:
                entries.push_back(
                    File(name, RandomText(random, random() % (random() % 8 == 0 ? 2000000 : 500)), mode));
                files.push_back(name);
            }
        }
        MakeTree(source, entries);
        BackUp();
        Restored(0);
        ASSERT_EQ(Described(target), Described(source)) << round;
    }
}

} // namespace
