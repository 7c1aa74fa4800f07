// Backups into repositories: compared with restic 0.14 on the same files, in turns with it, and on entries
// that change, fail or are missing.
#include "agent/Access/TreeWalk.h"
#include "agent/Backup/ContentPool.h"
#include "agent/Record/NodeRecord.h"

#include "testing/AwkwardNames.h"
#include "testing/FileSizeLimit.h"
#include "testing/MountNamespace.h"
#include "testing/RepositoryFixture.h"
#include "testing/Tree.h"

#include <boost/json.hpp>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Agent;
using namespace Testing;
using Repo::BlobType;
using Repo::FileKind;
using Repo::Id;
using Repo::Node;
namespace fs = std::filesystem;
namespace json = boost::json;

namespace {

std::string RandomBytes(std::size_t size, unsigned int seed)
{
    std::mt19937 random(seed);
    std::string bytes;
    std::generate_n(std::back_inserter(bytes), size, [&] { return static_cast<char>(random()); });
    return bytes;
}

class RepositoryBackupTest : public RepositoryFixture
{
protected:
    RepositoryBackupTest()
    {
        Create();
        source = directory.MakeDirectory("s");
    }

    // The summary of a backup.
    json::object BackUp(int exitCode, std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"backup", "--json", "-q"});
        const ProgramResult result = Run(exitCode, arguments);
        return result.output.empty() ? json::object() : json::parse(result.output).as_object();
    }
    json::object ResticBackUp(const std::string& arguments) const
    {
        const std::string output = Restic("backup --json " + arguments);
        const std::size_t end = output.find_last_not_of('\n') + 1;
        const std::size_t begin = output.rfind('\n', end - 1) + 1; // also if there is one line
        return json::parse(output.substr(begin, end - begin)).as_object();
    }
    Node Find(const std::string& path, const std::string& snapshot = "latest") const
    {
        const Repo::Repository opened = Open();
        return FindEntry(opened, opened.FindSnapshot(snapshot).snapshot.tree, path).node;
    }
    std::string TreeOf(const std::string& path) const { return Find(path).subtree->ToHex(); }
    // restic finds no error and no blob that is stored twice.
    void ExpectSound(const std::string& options = "") const
    {
        EXPECT_TRUE(Holds(Restic("check " + options), "no errors were found"));
        const Repo::Repository opened = Open();
        const Repo::Index& index = opened.GetIndex();
        EXPECT_EQ(index.CountDuplicates(), 0u);
        for (std::uint32_t i = 0; i < index.CountBlobs(); ++i)
            EXPECT_EQ(index.FindAll(index.At(i).blob.handle).size(), 1u) << i;
    }
    std::vector<std::string> PathsOfLatest() const { return StoredPaths(Open()); }
    // A copy of the latest snapshot that claims to be from the future, so that its entries are trusted,
    // however new they are.
    std::string MakeTrustedParent() const
    {
        const Repo::Repository opened = Open();
        Repo::Snapshot snapshot = opened.FindSnapshot("latest").snapshot;
        snapshot.time.seconds += 1000;
        snapshot.summary->backupStart.seconds += 1000;
        return opened.SaveText(FileKind::Snapshot, snapshot.ToJson()).ToHex();
    }
};

// Entries that both programs store alike. Version 0.14 of restic loses attributes of symlinks, and bytes of
// link targets that are not UTF-8.
void MakeSource(const std::string& source, const TemporaryDirectory& directory)
{
    MakeTree(source, {Dir("d"), Dir("d/empty"), File("d/f", "x", 04755), File("f", "f", 0600, -5),
                      File("zero", ""), Hard("d/hard", "f"), Link("link", "f"), Link("gone", "none"),
                      Fifo("pipe"), Socket("socket"), File("zeros", std::string(1500000, '\0'))});
    for (const std::string& name : ShortNames(97))
        directory.Write("s/names/" + name, name);
    directory.Write("s/big", RandomBytes(9000000, 1));
    std::ofstream(source + "/sparse", std::ios::binary).seekp(5000000).put('x');
    for (const char* name : {"user.z", "user.a", "user.empty"})
        setxattr((source + "/f").c_str(), name, "value", std::string(name) == "user.empty" ? 0 : 5, 0);
}

TEST_F(RepositoryBackupTest, BothProgramsContinueEachOther)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    MakeSource(source, directory);
    const json::object first = BackUp(0, {"s"});
    EXPECT_GT(first.at("data_blobs").as_int64(), 3);
    const std::string tree = TreeOf(source);
    const std::string listing = Restic("ls --json latest"); // of the snapshot, too
    EXPECT_EQ(static_cast<std::size_t>(std::count(listing.begin(), listing.end(), '\n')),
              PathsOfLatest().size() + 1);
    EXPECT_TRUE(Holds(listing, R"("path":")" + source + R"(/d/empty")"));
    // What restic reads is stored already, and both find the snapshot of the other as their parent.
    EXPECT_EQ(ResticBackUp("--force " + source).at("data_blobs"), 0);
    EXPECT_EQ(TreeOf(source), tree);
    EXPECT_EQ(ResticBackUp(source).at("files_unmodified"), first.at("files_new"));
    const std::string parent = Open().FindSnapshot("latest").id.ToHex();
    const json::object again = BackUp(0, {source});
    EXPECT_EQ(again.at("data_blobs"), 0);
    EXPECT_EQ(again.at("files_unmodified"), first.at("files_new"));
    EXPECT_EQ(TreeOf(source), tree);
    EXPECT_EQ(Open().FindSnapshot("latest").snapshot.parent->ToHex(), parent);
    Restic("backup s"); // whose tree begins with s
    EXPECT_EQ(BackUp(0, {source}).at("files_unmodified"), first.at("files_new"));
    EXPECT_TRUE(Holds(Restic("check --read-data"), "no errors were found"));

    MakeTree(source, {Link("odd\xFF", "target\xFF")});
    setxattr((source + "/f").c_str(), "user.\xFF", "v", 1, 0);
    BackUp(0, {source});
    EXPECT_EQ(Find(source + "/odd\xFF").linkTarget, "target\xFF");
    std::string note;
    const Node node = Find(source + "/f");
    EXPECT_EQ(ReadKbagentMember(node, note)->attributes.at(0).name, "user.\xFF");
    EXPECT_EQ(node.attributes.size(), 3u);
    Restic("check");
    directory.Write("s/f", "other");
    BackUp(0, {source});
    const std::string changes = Restic("diff " + parent + " " + Open().FindSnapshot("latest").id.ToHex());
    EXPECT_TRUE(Holds(changes, "\nM    " + source + "/f\n"));
    EXPECT_TRUE(Holds(changes, "\n+    " + source + "/odd"));
    EXPECT_EQ(changes.find("/names"), std::string::npos) << changes;
    Restic("restore latest --target out");
    const std::string restored = directory / "out" + source;
    for (const char* part : {"/d", "/names"})
        EXPECT_EQ(DescribeTree(restored + part, {.attributes = false}),
                  DescribeTree(source + part, {.attributes = false}));
    EXPECT_TRUE(ReadFile(restored + "/sparse") == ReadFile(source + "/sparse"));
}

TEST_F(RepositoryBackupTest, RandomTreesAreThoseOfRestic)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    const auto seed = static_cast<unsigned int>(time(nullptr));
    std::mt19937 random(seed);
    const NameSet awkward = AwkwardNames();
    const std::vector<std::string> names(awkward.begin(), awkward.end());
    const int rounds = Rounds("BACKUP_ROUNDS", 5);
    for (int round = 0; round < rounds; ++round) {
        if (round % 5 == 0) {
            fs::remove_all(source);
            fs::create_directory(source);
        }
        std::vector<std::string> directories{"s"};
        for (int i = 0; i < 150; ++i) {
            const std::string path =
                directories[random() % directories.size()] + "/" + names[random() % names.size()];
            if (path.size() > 1500 || fs::exists(fs::symlink_status(directory / path)))
                continue;
            if (random() % 4 == 0)
                directories.push_back((directory.MakeDirectory(path), path));
            else if (random() % 8 == 0)
                fs::create_symlink("x" + std::to_string(i), directory / path);
            else
                directory.Write(path, RandomBytes(random() % 3000 * (random() % 50 == 0 ? 1000 : 1), i));
        }
        BackUp(0, {"s"});
        const std::string ours = TreeOf(source);
        EXPECT_EQ(ResticBackUp("--force " + source).at("data_blobs"), 0) << "seed " << seed;
        EXPECT_EQ(TreeOf(source), ours) << "seed " << seed;
        fs::remove_all(directory / (directories.back() == "s" ? "s/none" : directories.back()));
    }
    EXPECT_TRUE(Holds(Restic("check --read-data"), "no errors were found"));
}

TEST_F(RepositoryBackupTest, WhatDidNotChangeIsNotRead)
{
    MakeTree(source, {File("a", "a"), Dir("b"), File("b/x", "x"), Dir("b/y"), Dir("d"), File("d/f", "12"),
                      File("g", "g")});
    BackUp(0, {"s"});
    const auto rewrite = [&](const std::string& content) {
        const struct stat before = StatusOf(source + "/d/f");
        directory.Write("s/d/f", content);
        const timespec times[] = {before.st_atim, before.st_mtim};
        utimensat(AT_FDCWD, (source + "/d/f").c_str(), times, 0);
    };
    // Content that changes without a change of the status shows whether a file was read.
    rewrite("34");
    struct
    {
        std::vector<std::string> options;
        bool isRead;
    } const cases[] = {{{}, true}, // a new change time
                       {{"--ignore-ctime"}, false},
                       {{"--ignore-inode"}, false},
                       {{"--force"}, true}};
    const std::string oldContent = Find(source + "/d/f").content->at(0).ToHex();
    const std::string parent = MakeTrustedParent();
    for (const auto& [options, isRead] : cases) {
        std::vector<std::string> arguments{"s"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        if (options != std::vector<std::string>{"--force"})
            arguments.insert(arguments.end(), {"--parent", parent});
        const json::object summary = BackUp(0, arguments);
        const Node node = Find(source + "/d/f", std::string(summary.at("snapshot_id").as_string()));
        EXPECT_EQ(node.content->at(0).ToHex() != oldContent, isRead) << ::testing::PrintToString(options);
        const timespec changed = StatusOf(source + "/d/f").st_ctim;
        EXPECT_EQ(node.ctime, Repo::Timestamp::Local(changed.tv_sec, changed.tv_nsec));
    }
    // Other metadata is renewed.
    chmod((source + "/g").c_str(), 0640);
    const json::object changed = BackUp(0, {"s", "--parent", parent});
    EXPECT_EQ(changed.at("files_changed"), 2);
    const std::string changedId(changed.at("snapshot_id").as_string());
    EXPECT_EQ(Find(source + "/g", changedId).mode, 0640u);
    // What is taken over from the parent makes the trees of a run that reads all.
    const json::object whole = BackUp(0, {"s", "--force"});
    EXPECT_EQ(Find(source, changedId).subtree,
              Find(source, std::string(whole.at("snapshot_id").as_string())).subtree);
}

TEST_F(RepositoryBackupTest, SeveralPathsAreOneTree)
{
    MakeTree(source, {Dir("a", 0700), Dir("a/b"), File("a/b/x", "x"), File("a/b/y", "y"), File("a/c", "c"),
                      Dir("a-b"), File("a-b/z", "z"), Dir("link-to")});
    fs::create_directory_symlink("a", source + "/link");
    const json::object summary =
        BackUp(3, {"s/a/b/y", "s/a-b/z", "s/none", "s/link/b/x", "s/a/c", "--host", "h", "--tag", "t, u ",
                   "--tag", "v", "--time", "2020-02-29 01:02:03"});
    const std::vector<std::string> expected{"/a", "/a/b", "/a/b/x", "/a/b/y", "/a/c", "/a-b", "/a-b/z"};
    EXPECT_EQ(Stored(), expected);
    EXPECT_EQ(Find(source + "/a").mode, Repo::MakeNodeMode(040700));
    const Repo::Snapshot snapshot = Open().FindSnapshot("latest").snapshot;
    EXPECT_EQ(snapshot.paths, (std::vector<std::string>{source + "/a/b/y", source + "/a-b/z",
                                                        source + "/a/b/x", source + "/a/c"}));
    EXPECT_EQ(snapshot.hostname, "h");
    EXPECT_EQ(snapshot.tags, (std::vector<std::string>{"t", "u", "v"}));
    EXPECT_TRUE(snapshot.time.ToText().starts_with("2020-02-29T01:02:03")) << snapshot.time.ToText();
    EXPECT_EQ(snapshot.summary->filesNew, 4u);
    EXPECT_EQ(summary.at("files_new"), 4);

    // Paths in a directory that is stored already, and in one that the rules of a job only go through.
    BackUp(0, {"s"});
    const std::vector<std::string> whole = PathsOfLatest();
    BackUp(0, {"s/a/b/x", "s", "s/a/b"});
    EXPECT_EQ(PathsOfLatest(), whole);
    const std::string rule = R"({"path":")" + source + R"(","descriptor":{"descriptor":{"pattern":")";
    const std::string tail = R"(","match_type":"exact","case_sensitive":true},"selection_type":)";
    const std::string ends =
        R"("recursion_type":"recursive","report_exclude":true,"explicit_selection":false}})";
    const std::string job =
        directory.Write("job", R"({"includes":[)" + rule + "c" + tail + R"("include",)" + ends +
                                   R"(],"excludes":[)" + rule + "y" + tail + R"("exclude",)" + ends + "]}");
    BackUp(0, {"--job", job});
    EXPECT_EQ(PathsOfLatest().back(), source + "/a/c");
    EXPECT_EQ(json::parse(Run(0, {"show", "latest", "--json"}).output), json::parse(ReadFile(job)));
    BackUp(0, {"--job", job, "s/a/b"});
    const std::vector<std::string> paths = PathsOfLatest();
    EXPECT_EQ(std::vector<std::string>(paths.end() - 3, paths.end()),
              (std::vector<std::string>{source + "/a/b", source + "/a/b/x", source + "/a/c"}));

    EXPECT_TRUE(Holds(Run(0, "backup s/link").errors, "/link is a link, which is stored itself"));
    directory.Write("s/\xFF/f", "f");
    const json::object odd = BackUp(0, {"s/\xFF"});
    BackUp(0, {"s/\xFF"});
    EXPECT_EQ(Open().FindSnapshot("latest").snapshot.parent->ToHex(), odd.at("snapshot_id").as_string());
}

TEST_F(RepositoryBackupTest, LostBlobsAreStoredAgain)
{
    const auto flip = [](const fs::path& file) {
        std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(20).write("damaged!", 8);
    };
    const auto cut = [](const fs::path& file) {
        fs::resize_file(file, fs::file_size(file) - 1);
    };
    const auto remove = [](const fs::path& file) {
        fs::remove(file);
    };
    const struct
    {
        const char* label;
        std::string_view files; // "trees" and "packs" are those of the index
        std::function<void(const fs::path& file)> damage;
        std::vector<std::string> options; // the parent's id is appended to the last one
        std::string reported = " of them are needed by the snapshot and ";
    } rows[] = {{"parent's trees", "trees", flip, {"--parent="}},
                {"trees of no parent", "trees", flip, {"--force"}},
                {"missing", "packs", remove, {"--parent="}},
                {"short", "packs", cut, {"--parent="}},
                {"index", "index", remove, {"--parent="}, "repo: The index lacks blobs of the parent; "}};
    MakeTree(source, {Dir("d"), Dir("d/e"), File("d/e/f", "f"), File("d/g", "g"), Link("link", "f")});
    BackUp(0, {"s"});
    const std::string parent = MakeTrustedParent();
    const std::string before = directory / "before";
    fs::rename(repository, before);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        fs::remove_all(repository);
        fs::copy(before, repository, fs::copy_options::recursive);
        const Repo::Repository opened = Open();
        for (const Repo::IndexedPack& pack : opened.GetIndex().GetPacks()) {
            if (row.files == "packs" || (row.files == "trees" && pack.hasTrees))
                row.damage(repository + "/" + Repo::FileName{FileKind::Pack, pack.id}.Path());
        }
        if (row.files == "index")
            for (const auto& file : fs::directory_iterator(repository + "/index"))
                row.damage(file.path());
        std::vector<std::string> arguments{"backup", "s"};
        for (const std::string& option : row.options)
            arguments.push_back(option.ends_with('=') ? option + parent : option);
        arguments.push_back("--dry-run");
        EXPECT_TRUE(Holds(Run(3, arguments).errors, "would be stored again. 'kbagent check'"));
        arguments.pop_back();
        const ProgramResult result = Run(3, arguments);
        EXPECT_TRUE(Holds(result.errors, row.reported));
        EXPECT_TRUE(Holds(result.output, " 0 failed\nFailures of the repository: 1\n"));
        const json::object next = BackUp(0, {"s"});
        EXPECT_EQ(next.at("data_blobs"), 0);
        const std::string id(next.at("snapshot_id").as_string());
        Run(0, {"restore", "-q", id + ":" + source, "--target", target});
        EXPECT_EQ(DescribeTree(target), DescribeTree(source));
        fs::remove_all(target);
    }
}

TEST_F(RepositoryBackupTest, WhatFailsIsReported)
{
    MakeTree(source, {Dir("d"), File("d/f", "x"), File("f", "f"), File("secret", "s"), Socket("socket")});
    BackUp(1, {"none"});
    BackUp(1, {"s/socket"});
    EXPECT_EQ(CountSnapshots(), 0u);
    for (const std::vector<std::string>& usage : {std::vector<std::string>{"s", "--force", "--parent", "x"},
                                                  {"s", "--compression", "fast"},
                                                  {"s", "--pack-size", "3"},
                                                  {"s", "--time", "2020-02-30 00:00:00"},
                                                  {"s", "--read-concurrency", "0"},
                                                  {"s", "--limit-upload", "-5"}})
        BackUp(2, usage);
    if (geteuid() == 0) {
        chmod((source + "/secret").c_str(), 0);
        chmod((source + "/d").c_str(), 0);
        chmod(directory.Path().c_str(), 0755);
        ASSERT_EQ(std::system(("chmod -R a+rwX " + repository + " && chown -R " +
                               std::to_string(OrdinaryUser) + " " + repository)
                                  .c_str()),
                  0);
        const ProgramResult result =
            Run(3, {"backup", "--json", "--read-concurrency", "1", source}, {.user = OrdinaryUser});
        EXPECT_TRUE(Holds(result.errors, R"("item":")" + source + R"(/secret")"));
        EXPECT_EQ(PathsOfLatest().back(), source + "/f");
        for (const std::string part : {"/data", "/index"}) {
            for (const auto& file : fs::recursive_directory_iterator(repository + part)) {
                if (file.is_regular_file())
                    fs::permissions(file.path(), fs::perms::none);
            }
            const ProgramResult check = Run(1, {"check", "--read-data"}, {.user = OrdinaryUser});
            EXPECT_TRUE(Holds(check.output, "\n0 of "));
            const std::string denied = Run(1, {"check", "--read-data", "-q"}, {.user = OrdinaryUser}).errors;
            EXPECT_TRUE(Holds(denied, "hint: this user may not read"));
            // One error for each pack, and one for each tree in them; no further ones for blobs.
            EXPECT_FALSE(Holds(denied, " (blob ")) << denied;
            EXPECT_EQ(denied.find("rebuil"), std::string::npos) << denied;
        }
    }
    const std::size_t before = CountSnapshots();
    directory.Write("s/big", RandomBytes(20 << 20, 3));
    {
        const FileSizeLimit limit(1 << 20);
        const ProgramResult result = Run(1, {"backup", "-q", "s"});
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    }
    EXPECT_EQ(CountSnapshots(), before);
    Run(0, "check --read-data");
    EXPECT_EQ(BackUp(0, {"s", "--dry-run"}).at("data_added").as_int64() > (20 << 20), true);
    EXPECT_EQ(CountSnapshots(), before);
    const std::string unread = "snapshots/" + std::string(64, 'a');
    directory.Write("repo/" + unread, "no snapshot");
    const std::string errors = Run(3, {"backup", "-q", "-n", "s/f"}).errors;
    EXPECT_TRUE(errors.starts_with("kbagent: " + unread + ": damaged: ")) << errors;
}

// The documents that a backup prints: those of items and the summary, and the last status.
struct Documents
{
    explicit Documents(const std::string& output)
    {
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            const json::object document = json::parse(line).as_object();
            const json::string& type = document.at("message_type").as_string();
            if (const json::value* const item = document.if_contains("item"); item && *item == "")
                continue; // the end of the scan
            if (type == "summary")
                summary = document;
            else if (type == "status")
                status = document;
            else
                items[std::string(document.at("item").as_string())] = document;
        }
    }

    std::map<std::string, json::object> items;
    json::object summary;
    json::object status;
};

TEST_F(RepositoryBackupTest, JsonIsThatOfRestic)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    MakeSource(source, directory);
    const std::string second = directory / "second";
    fs::copy(repository, second, fs::copy_options::recursive);
    for (int turn = 0; turn < 2; ++turn) {
        const Documents ours(Run(0, {"backup", "--json", "-v", source}).output);
        const Documents theirs(Restic("backup --json -v -r " + second + " " + source));
        ASSERT_EQ(ours.items.size(), theirs.items.size());
        // Of files with the same content, the first one that is read counts its size.
        std::int64_t more = 0;
        for (const auto& [path, item] : theirs.items) {
            ASSERT_TRUE(ours.items.contains(path)) << path;
            more += ours.items.at(path).at("data_size").to_number<std::int64_t>() -
                    item.at("data_size").to_number<std::int64_t>();
            if (!path.starts_with(source))
                continue; // other tests change the directories above, which changes the summary, too
            for (const char* key : {"action", "metadata_size"})
                EXPECT_EQ(ours.items.at(path).at(key), item.at(key)) << path;
        }
        EXPECT_EQ(more, 0);
        for (const auto& [key, value] : theirs.summary) {
            const bool isOwn = key == "total_duration" || key == "snapshot_id" || key == "data_added" ||
                               key == "tree_blobs" || key.starts_with("dirs_");
            EXPECT_EQ(isOwn ? value : ours.summary.at(key), value) << key;
        }
        for (const auto& [key, value] : theirs.status)
            EXPECT_TRUE(key != "percent_done" || ours.status.contains(key)) << key;
        directory.Write("s/d/f", "changed");
        directory.Write("s/new", RandomBytes(100000, 7));
    }
    const Documents last(Run(0, {"backup", "--json", "--no-scan", source}).output);
    EXPECT_EQ(last.status.at("percent_done"), 0);
    EXPECT_FALSE(last.status.contains("total_files"));
    EXPECT_TRUE(last.items.empty());
}

TEST_F(RepositoryBackupTest, ResticLooksAtLockOfRunningBackup)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    directory.Write("other/g", "g");
    // The backup does not end before its input does.
    ASSERT_EQ(mkfifo((directory / "input").c_str(), 0600), 0);
    const int input = open((directory / "input").c_str(), O_RDWR | O_CLOEXEC);
    const auto openInput = [] {
        dup2(open("input", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    };
    auto running = std::async(std::launch::async, [&] {
        return Run(0, {"backup", "-q", "--stdin"}, {.prepare = openInput});
    });
    constexpr std::size_t DigitsOfId = 64;
    const auto isLocked = [this] {
        const auto locks = Files("locks");
        return !locks.empty() && locks.front().filename().string().size() == DigitsOfId;
    };
    while (!isLocked() && running.wait_for(std::chrono::milliseconds(5)) != std::future_status::ready) {
    }
    Restic("unlock"); // sends SIGHUP
    EXPECT_TRUE(isLocked());
    Restic("backup other");
    EXPECT_TRUE(isLocked());
    EXPECT_EQ(write(input, "f", 1), 1);
    close(input);
    running.get();
    EXPECT_TRUE(Files("locks").empty());
    EXPECT_EQ(CountSnapshots(), 2u);
    ExpectSound("--read-data");
}

TEST_F(RepositoryBackupTest, KilledBackupLeavesSoundRepository)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    const auto seed = static_cast<unsigned int>(time(nullptr));
    std::mt19937 random(seed);
    const int rounds = Rounds("BACKUP_KILLS", 3);
    for (int i = 0; i < 300; ++i)
        directory.Write("s/" + std::to_string(i), RandomBytes(i, i));
    const auto kill = [this](long microseconds) {
        return [this, microseconds] {
            setenv("KBAGENT_PASSWORD", password.c_str(), 1);
            const itimerval timer{{0, 0}, {0, microseconds}};
            setitimer(ITIMER_REAL, &timer, nullptr);
        };
    };
    int killed = 0;
    for (int round = 0; round < rounds; ++round) {
        directory.Write("s/big", RandomBytes(25000000, random()));
        const ProgramResult result =
            RunProgram({"backup", "-r", repository, "--pack-size", "4", source},
                       {.user = 0, .prepare = kill(1 + static_cast<long>(random() % 999999))});
        killed += result.exitCode == 128 + SIGALRM;
        EXPECT_TRUE(result.exitCode == 128 + SIGALRM || result.exitCode == 0) << result.errors;
        Restic("unlock");
        ExpectSound();
        BackUp(0, {"s"});
        EXPECT_EQ(Find(source + "/big").size, 25000000u) << "seed " << seed;
        EXPECT_TRUE(Open().ListIds(FileKind::Lock).empty()) << "a temporary file may be left";
    }
    std::printf("killed %d of %d backups\n", killed, rounds);
    ExpectSound("--read-data");
}

TEST_F(RepositoryBackupTest, BlobIsStoredOnceByBothPrograms)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    directory.Write("s/big", RandomBytes(64 << 20, 8));
    for (int turn = 0; turn < 6; ++turn) {
        std::fstream(source + "/big", std::ios::in | std::ios::out | std::ios::binary)
            .seekp(turn * 10000000)
            .write(RandomBytes(1500000, turn).data(), 1500000);
        directory.Write("s/d" + std::to_string(turn) + "/f", std::to_string(turn));
        const json::object summary = turn % 2 == 0 ? BackUp(0, {"s"}) : ResticBackUp(source);
        if (turn != 0) {
            EXPECT_EQ(summary.at("files_changed"), 1);
            EXPECT_LT(summary.at("data_added").as_int64(), 20 << 20);
        }
    }
    EXPECT_EQ(ResticBackUp("--force " + source).at("data_blobs"), 0);
    ExpectSound("--read-data");
}

TEST_F(RepositoryBackupTest, RunsAtOnceDoNotDisturbEachOther)
{
    directory.Write("s/big", RandomBytes(20000000, 1));
    BackUp(0, {"s"});
    const std::string before = DescribeTree(source);
    const std::string other = directory.MakeDirectory("other");
    directory.Write("other/big", RandomBytes(30000000, 2));
    std::vector<std::future<ProgramResult>> runs;
    for (const char* words : {"backup -q other --host a", "backup -q other --host b",
                              "restore latest --target out --verify --path s"})
        runs.push_back(std::async(std::launch::async, [this, words] { return Run(0, Words(words)); }));
    for (std::future<ProgramResult>& run : runs)
        run.get();
    EXPECT_EQ(DescribeTree(directory / "out" + source), before);
    EXPECT_EQ(CountSnapshots(), 3u);
    Run(0, "check --read-data");
}

TEST(RepositoryBackupMounts, FullDiskIsOneErrorAndRepositoryStaysSound)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string repository = space / "repository", source = space / "s";
        space.Mount("small", repository, "tmpfs", 0, "size=24m");
        CreateRepository(repository, "");
        const auto run = [&](std::vector<std::string> arguments) {
            arguments.insert(arguments.end(), {"-r", repository, "--insecure-no-password"});
            return RunProgram(arguments);
        };
        MountNamespace::Write(source + "/small", "x");
        EXPECT_EQ(run({"backup", source}).exitCode, 0);
        MountNamespace::Write(source + "/big", RandomBytes(60000000, 1));
        const ProgramResult full = run({"backup", "-q", source});
        EXPECT_EQ(full.exitCode, 1);
        EXPECT_TRUE(Holds(full.errors, "No space left on device"));
        EXPECT_EQ(std::count(full.errors.begin(), full.errors.end(), '\n'), 1) << full.errors;
        const ProgramResult check = run({"check", "--read-data"});
        EXPECT_EQ(check.exitCode, 0) << check.errors;
        fs::remove(source + "/big");
        EXPECT_EQ(run({"backup", source}).exitCode, 0);
    });
}

// Files that a pool stores in memory.
class ContentPoolTest : public ::testing::Test
{
protected:
    StoredContent Store(const std::string& path)
    {
        StoredContent result;
        ContentPool pool(
            polynomial,
            [this](BlobType, Repo::ByteView bytes) {
                const Id id = Id::Of(bytes);
                const std::lock_guard guard(mutex);
                blobs[id] = Repo::AsText(bytes);
                if (onStore)
                    onStore();
                return StoredBlob{id, 0, 0};
            },
            PoolOptions{.threads = 4, .readers = 2});
        auto file = std::make_shared<Krt::Util::YUnxHandle>(open(path.c_str(), O_RDONLY | O_CLOEXEC), true);
        pool.Add({std::move(file), path, [&result](const StoredContent& content) {
                      result = content;
                  }});
        pool.Finish();
        return result;
    }
    std::string ContentOf(const StoredContent& stored)
    {
        std::string content;
        for (const Id& id : stored.blobs)
            content += blobs[id];
        return content;
    }

    const TemporaryDirectory directory;
    const Repo::Polynomial polynomial = Repo::Config::Random().polynomial;
    std::mutex mutex;
    std::map<Id, std::string> blobs;
    std::function<void()> onStore;
};

TEST_F(ContentPoolTest, ChunksAreInOrderAndHolesAreCutAsZeros)
{
    const std::string path = directory.Write("f", RandomBytes(20000000, 5));
    // Data, a hole that begins within a chunk, data, and a hole at the end.
    ASSERT_EQ(truncate(path.c_str(), 30000000), 0);
    std::fstream(path, std::ios::in | std::ios::out | std::ios::binary).seekp(26000000).put('x');
    const StoredContent holes = Store(path);
    const std::string content = ReadFile(path);
    EXPECT_TRUE(ContentOf(holes) == content);
    EXPECT_EQ(holes.size, content.size());
    EXPECT_FALSE(holes.isChanged);
    EXPECT_EQ(Store(directory.Write("g", content)).blobs, holes.blobs); // without holes
    EXPECT_TRUE(Store(directory.Write("empty", "")).blobs.empty());
}

TEST_F(ContentPoolTest, FilesThatChangeAreReadAgain)
{
    const std::string path = directory.Write("f", "first");
    int changes = 0;
    int most = 1;
    onStore = [&] {
        if (changes < most)
            directory.Write("f", "change " + std::to_string(++changes));
    };
    StoredContent stored = Store(path);
    EXPECT_EQ(ContentOf(stored), "change 1");
    EXPECT_FALSE(stored.isChanged);
    changes = 0;
    most = 100;
    stored = Store(path);
    EXPECT_EQ(changes, 1 + ContentPool::RereadTimes);
    EXPECT_TRUE(stored.isChanged);
    EXPECT_EQ(stored.size, ContentOf(stored).size());
    onStore = [] {
        throw std::runtime_error("full");
    };
    EXPECT_THROW(Store(path), std::runtime_error);
}

} // namespace
