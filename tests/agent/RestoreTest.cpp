// Restores of snapshots that are hostile or damaged, and into targets that are: nothing outside is touched,
// and the rest is restored.
#include "agent/Restore/TargetTree.h"
#include "agent/Store/ObjectWriter.h"
#include "agent/Store/SnapshotWriter.h"

#include "testing/OrdinaryUser.h"
#include "testing/Program.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"

#include "Backup/File/YUnixFileMetadata.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

using Components = std::vector<std::string>;

class RestoreProgram : public ::testing::Test
{
protected:
    void SetUp() override
    {
        target = directory.MakeDirectory("target");
        store = directory / "store";
        MakeTree(directory.MakeDirectory("outside"),
                 {Dir("dir"), File("dir/file", "sentinel"), File("file", "too")});
        before = DescribeTree(directory / "outside");
    }
    void TearDown() override { EXPECT_EQ(DescribeTree(directory / "outside"), before); }

    static Backup::File::YUnixFileMetadata Record(const Components& components, unsigned int mode)
    {
        Backup::YJobPath path;
        for (const std::string& component : components)
            path.AppendComponent({Krt::YString(component), Krt::YString(), 0x602, 0});
        Backup::File::YUnixFileMetadata metadata;
        metadata.SetFilePath(path);
        metadata.SetModeFlags(mode);
        metadata.SetIsDirectoryForRestore(S_ISDIR(mode));
        metadata.SetUserId(geteuid());
        metadata.SetGroupId(getegid());
        metadata.SetLastWriteTime(1000000000);
        return metadata;
    }
    static Agent::SnapshotEntry Directory(const Components& components, unsigned int mode = 0755)
    {
        Agent::SnapshotEntry entry;
        entry.record = Record(components, S_IFDIR | mode).ToJSON();
        return entry;
    }
    static Agent::SnapshotEntry LinkTo(const Components& components, const std::string& linkTarget)
    {
        auto metadata = Record(components, S_IFLNK | 0777);
        metadata.SetSymbolicLinkTarget(Krt::File::YPath(linkTarget.c_str()));
        Agent::SnapshotEntry entry;
        entry.record = metadata.ToJSON();
        return entry;
    }
    Agent::SnapshotEntry FileWith(const Components& components, const std::string& content,
                                  unsigned long long group = 0)
    {
        auto metadata = Record(components, S_IFREG | 0644);
        metadata.SetFileSize(content.size());
        Agent::SnapshotEntry entry;
        entry.record = metadata.ToJSON();
        entry.hardLinkGroup = group;
        m_writer->Begin();
        m_writer->Append(content.data(), content.size());
        entry.content = m_writer->Finish();
        return entry;
    }

    // Runs `fill` with a snapshot to fill, and restores that.
    template <class Fill>
    ProgramResult RestoreOf(Fill fill, const std::vector<std::string>& paths = {})
    {
        {
            const Agent::Store opened = Agent::Store::OpenOrCreate(store);
            Agent::StoreSession session(opened);
            m_writer.emplace(session);
            Agent::SnapshotWriter writer(session, Agent::SnapshotHeader());
            fill(writer);
            writer.Finish(0, 0);
            m_writer.reset();
        }
        std::vector<std::string> arguments = {"restore", "--store", store, "--to", target};
        arguments.insert(arguments.end(), paths.begin(), paths.end());
        return RunProgram(arguments);
    }

    TemporaryDirectory directory;
    std::string target;
    std::string store;
    std::string before;
    std::optional<Agent::ObjectWriter> m_writer;
};

TEST_F(RestoreProgram, RefusesComponentsThatCouldLeaveTheTarget)
{
    const Components hostile[] = {{"..", "outside", "file"},
                                  {"a", "..", "..", "outside", "file"},
                                  {".", "file"},
                                  {"", "file"},
                                  {"../outside/file"},
                                  {"/etc/passwd"},
                                  {"a/../../outside", "x"},
                                  {std::string("a\0b", 3)}};
    for (const Components& components : hostile) {
        const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
            writer.Add(FileWith(components, "evil"));
            writer.Add(Directory(components));
            writer.Add(FileWith({"good"}, "good"));
        });
        EXPECT_EQ(result.exitCode, 3) << components.front() << result.errors;
        EXPECT_NE(result.errors.find("Refused"), std::string::npos) << result.errors;
        EXPECT_EQ(ReadFile(target + "/good"), "good");
        EXPECT_EQ(std::distance(fs::directory_iterator(target), fs::directory_iterator()), 1)
            << components.front();
    }
}

TEST_F(RestoreProgram, FollowsNoLinkOnTheWay)
{
    fs::create_symlink(directory / "outside", target + "/planted");
    fs::create_symlink(directory / "outside/file", target + "/leaf");
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(FileWith({"planted", "file"}, "evil"));
        writer.Add(Directory({"planted", "dir"}, 0700));
        writer.Add(Directory({"planted"}, 0700));
        writer.Add(LinkTo({"restored"}, directory / "outside"));
        writer.Add(FileWith({"restored", "dir", "file"}, "evil"));
        writer.Add(FileWith({"leaf"}, "in its place"));
        writer.Add(LinkTo({"twice"}, directory / "outside/file"));
        writer.Add(FileWith({"twice"}, "in its place"));
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_TRUE(fs::is_symlink(target + "/planted"));
    EXPECT_TRUE(fs::is_symlink(target + "/restored"));
    EXPECT_FALSE(fs::is_symlink(target + "/leaf"));
    EXPECT_EQ(ReadFile(target + "/leaf"), "in its place");
    EXPECT_FALSE(fs::is_symlink(target + "/twice"));
}

TEST_F(RestoreProgram, HardLinksStayInsideTheTarget)
{
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(FileWith({"dir", "first"}, "content", 1));
        // The first name gives way to a link to the outside; the second name must not become a name of that.
        writer.Add(LinkTo({"dir", "first"}, directory / "outside/file"));
        writer.Add(FileWith({"second"}, "content", 1));
        // A group whose first name was refused.
        writer.Add(FileWith({"..", "outside", "file"}, "evil", 2));
        writer.Add(FileWith({"third"}, "of its own", 2));
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(ReadFile(target + "/second"), "content");
    EXPECT_FALSE(fs::is_symlink(target + "/second"));
    EXPECT_EQ(ReadFile(target + "/third"), "of its own");
}

TEST_F(RestoreProgram, DirectoriesOutOfOrderKeepTheirTimesAndModes)
{
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(Directory({"a"}, 0555));
        writer.Add(FileWith({"a", "1"}, "1"));
        writer.Add(Directory({"b"}, 0500));
        writer.Add(FileWith({"b", "2"}, "2"));
        writer.Add(FileWith({"a", "3"}, "3"));
        writer.Add(FileWith({"a", "deep", "4"}, "4"));
    });
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    struct stat status
    {};
    ASSERT_EQ(stat((target + "/a").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0555u);
    EXPECT_EQ(status.st_mtime, 1000000000);
    EXPECT_EQ(ReadFile(target + "/a/3"), "3");
    ASSERT_EQ(stat((target + "/a/deep").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
}

TEST_F(RestoreProgram, ARestoreCutShortLeavesDirectoriesAsTheyWere)
{
    // Of the first one nothing changes, so it matters not that only its owner could set its times.
    fs::create_directories(target + "/foreign/own");
    chmod(directory.Path().c_str(), 0755);
    chmod(target.c_str(), 0755);
    chmod((target + "/foreign").c_str(), 0755);
    chmod((target + "/foreign/own").c_str(), 0500);
    const bool isGivenAway = geteuid() != 0 || chown((target + "/foreign/own").c_str(), OrdinaryUser, 0) == 0;
    ASSERT_TRUE(isGivenAway);
    EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
        bool refused = false;
        {
            Agent::TargetTree tree(Krt::File::YDirectory::Open(Krt::File::YPath(target.c_str())),
                                   [&](const auto&, const auto&) { refused = true; });
            tree.ParentOf({"foreign", "own", "new"}).MakeDirectory("new", 0700);
        }
        return !refused;
    }));
    struct stat status
    {};
    ASSERT_EQ(stat((target + "/foreign/own").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0500u);
    EXPECT_TRUE(fs::is_directory(target + "/foreign/own/new"));
}

TEST_F(RestoreProgram, GoesDeeperThanTheUsualLimitOfDescriptors)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit low{50, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    const ProgramResult result =
        RestoreOf([&](Agent::SnapshotWriter& writer) { writer.Add(FileWith(Components(60, "d"), "deep")); });
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
}

TEST_F(RestoreProgram, WhatStandsThereStaysWhenAnEntryFails)
{
    fs::create_directory(target + "/dir");
    std::ofstream(target + "/kept") << "old content";
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(FileWith({"dir"}, "a file for a directory"));
        writer.Add(FileWith({"kept", "below a file"}, "x"));
        Agent::SnapshotEntry missing = FileWith({"kept"}, "gone");
        missing.content->bytes[0] ^= 1;
        writer.Add(missing);
        writer.Add(FileWith({"good"}, "good"));
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(ReadFile(target + "/kept"), "old content");
    EXPECT_TRUE(fs::is_directory(target + "/dir"));
    EXPECT_EQ(ReadFile(target + "/good"), "good");
    EXPECT_EQ(std::distance(fs::directory_iterator(target), fs::directory_iterator()), 3)
        << "no temporary stays";
}

TEST_F(RestoreProgram, DamagedObjectsAndSnapshotsAreRefused)
{
    const std::string content(100000, 'x');
    RestoreOf([&](Agent::SnapshotWriter& writer) { writer.Add(FileWith({"file"}, content)); });
    fs::remove(target + "/file");
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(store + "/objects")) {
        if (!entry.is_regular_file())
            continue;
        std::fstream object(entry.path(), std::ios::in | std::ios::out | std::ios::binary);
        object.seekp(static_cast<std::streamoff>(entry.file_size() / 2));
        object.put('\x5A');
    }
    const std::vector<std::string> restore = {"restore", "--store", store, "--to", target};
    EXPECT_EQ(RunProgram(restore).exitCode, 3);
    EXPECT_FALSE(fs::exists(target + "/file"));

    for (const fs::directory_entry& entry : fs::directory_iterator(store + "/snapshots"))
        fs::resize_file(entry.path(), entry.file_size() - 3);
    const ProgramResult result = RunProgram(restore);
    EXPECT_EQ(result.exitCode, 1) << result.errors;
    EXPECT_TRUE(fs::is_empty(target));
}

TEST_F(RestoreProgram, RestoresOnlyWhatIsNamed)
{
    const auto fill = [&](Agent::SnapshotWriter& writer) {
        writer.Add(Directory({"a"}));
        writer.Add(FileWith({"a", "1"}, "1"));
        writer.Add(FileWith({"ab"}, "2"));
        writer.Add(FileWith({"b"}, "3"));
    };
    EXPECT_EQ(RestoreOf(fill, {"/a"}).exitCode, 0);
    EXPECT_TRUE(fs::exists(target + "/a/1"));
    EXPECT_FALSE(fs::exists(target + "/ab"));
    const ProgramResult result = RestoreOf(fill, {"/b", "/missing"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_NE(result.errors.find("/missing"), std::string::npos);
    EXPECT_TRUE(fs::exists(target + "/b"));
}

} // namespace
