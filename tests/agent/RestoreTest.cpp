// Restores of snapshots that are damaged or unusual, and into targets that are: what can be restored is.
#include "agent/Restore/TargetTree.h"
#include "agent/Restore/WindowsTime.h"

#include "testing/JobPaths.h"
#include "testing/OrdinaryUser.h"
#include "testing/RestoreFixture.h"

#include "Backup/File/YOdsMetadata.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

using RestoreProgram = RestoreFixture;

// The call that fails: a file system may tell only at the end that it could not keep what it took.
enum class Failing
{
    Nothing,
    CloseOfFile,
    Sync,
    RemovalOfName
};
Failing s_failing = Failing::Nothing;

bool IsBeingRestored(int file)
{
    char path[4096] = {};
    return readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path, sizeof path - 1) > 0 &&
           std::strstr(path, "/.kbagent-restore-") != nullptr;
}

} // namespace

extern "C" [[gnu::visibility("default")]] int close(int file)
{
    const bool isLost = s_failing == Failing::CloseOfFile && IsBeingRestored(file);
    const long result = syscall(SYS_close, file);
    if (isLost)
        errno = EDQUOT;
    return isLost ? -1 : static_cast<int>(result);
}

extern "C" [[gnu::visibility("default")]] int syncfs(int file) noexcept
{
    errno = EIO;
    return s_failing == Failing::Sync ? -1 : static_cast<int>(syscall(SYS_syncfs, file));
}

extern "C" [[gnu::visibility("default")]] int unlinkat(int directory, const char* name, int flags) noexcept
{
    const bool isKept = s_failing == Failing::RemovalOfName && std::strstr(name, ".kbagent-restore-") == name;
    errno = EIO;
    return isKept ? -1 : static_cast<int>(syscall(SYS_unlinkat, directory, name, flags));
}

namespace {

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
    EXPECT_EQ(StatusOf("a").st_mode & 07777, 0555u);
    EXPECT_EQ(StatusOf("a").st_mtime, 1000000000);
    EXPECT_EQ(ReadFile(target + "/a/3"), "3");
    EXPECT_EQ(StatusOf("a/deep").st_mode & 07777, 0755u);
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
            Agent::TargetTree tree(Krt::File::YDirectory::Open(Krt::File::YPath(target.c_str())), "staging",
                                   [&](const auto&, const auto&) { refused = true; });
            tree.ParentOf({"foreign", "own", "new"}).MakeDirectory("new", 0700);
        }
        return !refused;
    }));
    EXPECT_EQ(StatusOf("foreign/own").st_mode & 07777, 0500u);
    EXPECT_TRUE(fs::is_directory(target + "/foreign/own/new"));
}

TEST_F(RestoreProgram, GoesDeeperThanTheUsualLimitOfDescriptors)
{
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit low{50, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    const ProgramResult result =
        RestoreOf([&](Agent::SnapshotWriter& writer) { writer.Add(FileWith(Names(60, "d"), "deep")); });
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

TEST_F(RestoreProgram, WhatCannotBeKeptIsToldThoughItWasWritten)
{
    // A further name at the place of the first one is no name to move there.
    MakeSnapshot([&](Agent::SnapshotWriter& writer) {
        writer.Add(WindowsFile({{"C:", "file"}, {"C", "file"}}, "content"));
    });
    const struct
    {
        Failing failing;
        int exitCode;
        const char* told;
        std::ptrdiff_t entries;
    } rows[] = {{Failing::CloseOfFile, 3, "/C/file: Failed to write file", 1},
                {Failing::Sync, 1, "error: Failed to write to disk", 2},
                {Failing::RemovalOfName, 3, "/C/file: temporary name not removed: ", 3}};
    for (const auto& row : rows) {
        ProgramSettings settings;
        settings.isLinked = true;
        settings.prepare = [&row] {
            s_failing = row.failing;
        };
        const ProgramResult result = Restore(settings);
        EXPECT_EQ(result.exitCode, row.exitCode) << row.told;
        EXPECT_TRUE(Holds(result.errors, row.told));
        EXPECT_EQ(std::distance(fs::recursive_directory_iterator(target), {}), row.entries) << row.told;
    }
}

TEST_F(RestoreProgram, ADamagedSnapshotIsRefusedBeforeAnything)
{
    RestoreOf([&](Agent::SnapshotWriter& writer) { writer.Add(FileWith({"file"}, "content")); });
    fs::remove(target + "/file");
    for (const fs::directory_entry& entry : fs::directory_iterator(store + "/snapshots"))
        fs::resize_file(entry.path(), entry.file_size() - 3);
    Run(1, {"restore", "--to", target});
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
    EXPECT_TRUE(Holds(result.errors, "/missing"));
    EXPECT_TRUE(fs::exists(target + "/b"));
}

TEST_F(RestoreProgram, VolumesOfOneDirectoryReplaceNoFileOfEachOther)
{
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(EntryOf(WindowsRecord({{"C:", "dir"}}, 0x10)));
        writer.Add(WindowsFile({{"C:", "dir", "file"}}, "first"));
        writer.Add(EntryOf(WindowsRecord({{"C", "dir"}}, 0x10)));
        writer.Add(WindowsFile({{"C", "dir", "file"}}, "of the other volume"));
        writer.Add(WindowsFile({{"C", "dir", "more"}}, "more"));
        writer.Add(WindowsFile({{"C:", "two names"}, {"C", "two names"}}, "2"));
        writer.Add(WindowsFile({{"\\\\?\\C:", "two names"}}, "the same volume"));
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.errors,
              "kbagent: /C/dir/file: Not restored: what stands in its place may be of the volume C:, "
              "which is restored into the same directory\n");
    EXPECT_EQ(ReadFile(target + "/C/dir/file"), "first");
    EXPECT_EQ(ReadFile(target + "/C/dir/more"), "more");
    EXPECT_EQ(ReadFile(target + "/C/two names"), "the same volume");
}

TEST_F(RestoreProgram, SeveralPathsOfARecordAreNamesOfOneFile)
{
    const auto fill = [&](Agent::SnapshotWriter& writer) {
        writer.Add(WindowsFile({{"C:", "1"}, {"C:", "..", "2"}, {"C:", "3", "3"}, {"C", "1"}, {"C:", "4"}},
                               "content"));
    };
    const ProgramResult some = RestoreOf(fill, {"/C/3", "C/4"});
    EXPECT_TRUE(Holds(some.output, "2 entries restored"));
    EXPECT_EQ(ReadFile(target + "/C/3/3"), "content");
    EXPECT_EQ(StatusOf("C/4").st_ino, StatusOf("C/3/3").st_ino);
    EXPECT_FALSE(fs::exists(target + "/C/1"));

    // A directory in the first one's place leaves the content to the next one.
    fs::create_directory(target + "/C/1");
    const ProgramResult all = RestoreOf(fill);
    EXPECT_EQ(all.exitCode, 3);
    EXPECT_TRUE(Holds(all.errors, "C:/../2: Refused") && Holds(all.errors, "/C/1: A directory stands"))
        << all.errors;
    EXPECT_EQ(StatusOf("C/4").st_ino, StatusOf("C/3/3").st_ino);
    EXPECT_EQ(StatusOf("C/4").st_nlink, 2u);
    EXPECT_TRUE(fs::is_directory(target + "/C/1"));
}

TEST_F(RestoreProgram, RecordsWithoutAFileAreToldAndListed)
{
    auto mixed = UnixRecord({}, S_IFDIR | 0755);
    mixed.SetFilePath(JobPath({{0x602, "a"}, {0x700, "b"}, {0x602, "c"}}));
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(EntryOf(Backup::File::YOdsMetadata(JobPath({{0x700, "server"}, {0x700, "object"}}))));
        writer.Add(EntryOf(WindowsRecord({{"C:", "link"}}, 0x420)));
        writer.Add(EntryOf(mixed));
        writer.Add(EntryOf(WindowsRecord({{"C:", "nothing"}}, 0x20)));
        writer.Add(WindowsFile({}, "no path"));
        writer.Add(Directory({}));
        writer.Add(WindowsFile({{":?", "no name"}}, "x"));
        writer.Add(WindowsFile({{"C:", "good"}, {"\\\\?\\D:", "two"}}, "good", 0x27));
    });
    EXPECT_EQ(result.exitCode, 3);
    for (const char* told : {"/server/object: An ODS object is no file", "/C/link: A reparse point",
                             "/C/nothing: The snapshot has no content", "Entry 5: The record has no path",
                             "Entry 6: The record has no path", ":?/no name: Refused"})
        EXPECT_TRUE(Holds(result.errors, told));
    EXPECT_EQ(StatusOf("D/two").st_ino, StatusOf("C/good").st_ino);
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(target), {}), 7);

    const ProgramResult list = Run(3, {"list", "--snapshot", "latest"});
    EXPECT_EQ(std::count(list.errors.begin(), list.errors.end(), '\n'), 2) << list.errors;
    for (const char* line : {"ods                  -            -                    - server/object\n",
                             " a/b/c\n", "----AL               -            0 2001-09-09T01:46:40Z /C/link\n",
                             "-RHSA-               -            4 2001-09-09T01:46:40Z /C/good\n",
                             "-RHSA-               -            4 2001-09-09T01:46:40Z /D/two\n"})
        EXPECT_TRUE(Holds(list.output, line));
}

TEST(WindowsTime, NumbersOfEitherScale)
{
    using Time = std::optional<std::pair<long long, long>>;
    const std::pair<unsigned long long, Time> rows[] = {
        {0, std::nullopt},
        {1700000000, std::pair(1700000000, 0)},
        {(1ull << 36) - 1, std::pair((1ll << 36) - 1, 0)}, // the last of the seconds
        {1ull << 36, std::pair(6871 - 11644473600, 947673600)},
        {116444736000000000, std::pair(0, 0)},
        {116444735999999999, std::pair(-1, 999999900)},
        {~0ull >> 1, std::pair(910692730085, 477580700)},
        {~0ull, std::nullopt},
    };
    for (const auto& [number, expected] : rows) {
        const auto time = Agent::TimeOfWindows(number);
        EXPECT_EQ(time ? Time(std::pair(time->tv_sec, time->tv_nsec)) : std::nullopt, expected) << number;
    }
}

} // namespace
