// Restores of snapshots that are damaged or unusual, and into targets that are: what can be restored is.
#include "agent/Restore/TargetTree.h"
#include "agent/Restore/WindowsTime.h"

#include "testing/CallHook.h"
#include "testing/JobPaths.h"
#include "testing/OrdinaryUser.h"
#include "testing/RestoreFixture.h"

#include "Backup/File/YOdsMetadata.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <unistd.h>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

using RestoreProgram = RestoreFixture;

TEST_F(RestoreProgram, DirectoriesOutOfOrderKeepTimesAndModes)
{
    RestoreOf(0, {Directory({"a"}, 0555), FileWith({"a", "1"}, "1"), Directory({"b"}, 0500),
                  FileWith({"b", "2"}, "2"), FileWith({"a", "3"}, "3"), FileWith({"a", "deep", "4"}, "4")});
    EXPECT_EQ(StatusOf("a").st_mode & 07777, 0555u);
    EXPECT_EQ(StatusOf("a").st_mtime, 1000000000);
    EXPECT_EQ(ReadFile(target + "/a/3"), "3");
    EXPECT_EQ(StatusOf("a/deep").st_mode & 07777, 0700u);
}

TEST_F(RestoreProgram, AbortLeavesDirectoriesUnchanged)
{
    // The first one does not change, so its times need not be restored, which only its owner could do.
    const std::string foreign = target + "/foreign", own = foreign + "/own";
    fs::create_directories(own);
    for (const std::string& path : {directory.Path(), target, foreign})
        chmod(path.c_str(), 0755);
    chmod(own.c_str(), 0500);
    ASSERT_TRUE(geteuid() != 0 || chown(own.c_str(), OrdinaryUser, 0) == 0);
    EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
        bool refused = false;
        {
            Agent::TargetTree tree(OpenTarget(), "staging", [&](const auto&...) { refused = true; });
            tree.ParentOf({"foreign", "own", "new"}).MakeDirectory("new", 0700);
        }
        return !refused;
    }));
    EXPECT_EQ(StatusOf("foreign/own").st_mode & 07777, 0500u);
    EXPECT_TRUE(fs::is_directory(own + "/new"));
}

TEST_F(RestoreProgram, DepthIsNotLimitedByDescriptors)
{
    MakeSnapshot({FileWith(Names(300, "d"), "deep")});
    const auto lower = [] {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max = 110;
        setrlimit(RLIMIT_NOFILE, &limit);
    };
    Restore(0, {.prepare = lower});
}

TEST_F(RestoreProgram, FailedEntryKeepsExistingOne)
{
    MakeTree(target, {Dir("dir"), File("kept", "old content")});
    Recorded missing = FileWith({"kept"}, "gone");
    missing.content.reset();
    missing.entry.content.emplace();
    RestoreOf(3, {FileWith({"dir"}, "a file for a directory"), FileWith({"kept", "below a file"}, "x"),
                  missing, FileWith({"good"}, "good")});
    EXPECT_EQ(ReadFile(target + "/kept"), "old content");
    EXPECT_TRUE(fs::is_directory(target + "/dir"));
    EXPECT_EQ(ReadFile(target + "/good"), "good");
    EXPECT_EQ(std::distance(fs::directory_iterator(target), {}), 3) << "no temporary stays";
}

TEST_F(RestoreProgram, FailureAfterWritingIsReported)
{
    // The second name has the same path as the first one, so no hard link is created.
    MakeSnapshot({WindowsFile({{"C:", "file"}, {"C", "file"}}, "content")});
    const struct
    {
        const char* function; // that fails: a file system may report lost data only when the file is closed
        const char* entry;
        int exitCode;
        const char* expected;
        std::ptrdiff_t entries;
    } rows[] = {{"close", ".kbagent-restore-", 3, "/C/file: Failed to write file", 1},
                {"syncfs", "", 1, "error: Failed to write to disk", 2},
                {"unlinkat", ".kbagent-restore-", 3, "/C/file: temporary name not removed: ", 3}};
    for (const auto& row : rows) {
        const auto fail = [&row](const HookedCall& call) {
            if (call.function == row.function && Holds(call.name, row.entry))
                CallHook::Fail(EIO);
        };
        const ProgramResult result = Restore(row.exitCode, Hooked(fail));
        EXPECT_TRUE(Holds(result.errors, row.expected));
        EXPECT_EQ(std::distance(fs::recursive_directory_iterator(target), {}), row.entries) << row.expected;
    }
}

TEST_F(RestoreProgram, EntryWithoutAttributesCountsOnceAsFailed)
{
    Recorded file = FileWith({"dir", "file"}, "content");
    file.entry.readSize = 7; // a second reason
    MakeSnapshot({Directory({"dir"}), file, LinkTo({"link"}, "file")});
    const auto fail = [](const HookedCall& call) {
        if (call.function == "fchown")
            CallHook::Fail(EPERM);
    };
    const ProgramResult result = Restore(3, Hooked(fail));
    EXPECT_TRUE(Holds(result.output, "1 entries restored: 0 files, 0 directories, 1 links, 0 others\n"));
    EXPECT_TRUE(Holds(result.output, ", 2 failed\n"));
    EXPECT_TRUE(Holds(result.errors, "; restored as it was read"));
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 2) << result.errors;
}

TEST_F(RestoreProgram, InterruptEndsWaitForDisk)
{
    MakeSnapshot({FileWith({"file"}, "content")});
    pid_t program = 0;
    const auto interrupt = [&program](const HookedCall& call) {
        if (program == 0)
            program = getpid();
        if (call.function == std::string("syncfs")) {
            kill(program, SIGINT);
            sleep(1);
        }
    };
    EXPECT_TRUE(Holds(Restore(130, Hooked(interrupt)).errors, "error: Interrupted"));
}

TEST_F(RestoreProgram, FullTargetEndsWithOneError)
{
    MakeSnapshot({FileWith({"a"}, "1"), FileWith({"b"}, "2"), FileWith({"c"}, "3")});
    int calls = 0;
    const auto fail = [&calls](const HookedCall& call) {
        if (call.function == std::string("renameat") && Holds(call.name, ".kbagent-restore-") && ++calls > 1)
            CallHook::Fail(ENOSPC);
    };
    const std::string errors = Restore(1, Hooked(fail)).errors;
    EXPECT_TRUE(Holds(errors, "error: The target is full: /b: ") &&
                Holds(errors, "; 1 entries were restored") && !Holds(errors, ".kbagent-restore-"));
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    EXPECT_EQ(ReadFile(target + "/a"), "1");
}

TEST_F(RestoreProgram, EmptySnapshotIsReported)
{
    const ProgramResult result = RestoreOf(0, {});
    EXPECT_TRUE(Holds(result.output, "0 entries restored: ") && Holds(result.output, ", 0 failed\n"));
    EXPECT_EQ(result.errors, "kbagent: The snapshot has no entries, so nothing was restored\n");
}

TEST_F(RestoreProgram, DamagedSnapshotIsRefusedFirst)
{
    MakeSnapshot({FileWith({"file"}, "content")});
    for (const fs::directory_entry& entry : fs::directory_iterator(store + "/snapshots"))
        fs::resize_file(entry.path(), entry.file_size() - 3);
    Restore(1);
    EXPECT_TRUE(fs::is_empty(target));
}

TEST_F(RestoreProgram, OnlyNamedPathsAreRestored)
{
    MakeSnapshot({Directory({"a"}), FileWith({"a", "1"}, "1"), FileWith({"ab"}, "2"), FileWith({"b"}, "3")});
    Restore(0, {}, {".//a/."});
    EXPECT_TRUE(fs::exists(target + "/a/1"));
    EXPECT_FALSE(fs::exists(target + "/ab"));
    EXPECT_TRUE(Holds(Restore(3, {}, {"/b", "/missing"}).errors, "/missing"));
    EXPECT_TRUE(fs::exists(target + "/b"));
}

TEST_F(RestoreProgram, VolumesOfOneNameKeepEachOthersFiles)
{
    MakeSnapshot({
        EntryOf(WindowsRecord({{"C:", "dir"}}, 0x10)),
        WindowsFile({{"C:", "dir", "file"}}, "first"),
        EntryOf(WindowsRecord({{"C", "dir"}}, 0x10)),
        WindowsFile({{"C", "dir", "file"}}, "of the other volume"),
        WindowsFile({{"C", "dir", "more"}}, "more"),
        WindowsFile({{"C:", "two names"}, {"C", "two names"}}, "2"),
        WindowsFile({{"\\\\?\\C:", "two names"}}, "the same volume"),
    });
    EXPECT_EQ(Restore(3).errors,
              "kbagent: /C/dir/file: Not restored: the existing entry may be from the volume C:, "
              "which is restored into the same directory\n");
    EXPECT_EQ(ReadFile(target + "/C/dir/file"), "first");
    EXPECT_EQ(ReadFile(target + "/C/dir/more"), "more");
    EXPECT_EQ(ReadFile(target + "/C/two names"), "the same volume");
}

TEST_F(RestoreProgram, PathsOfOneRecordAreHardLinks)
{
    MakeSnapshot({WindowsFile({{"C:", "1"}, {"C:", "..", "2"}, {"C:", "3", "3"}, {"C", "1"}, {"C:", "4"}},
                              "content")});
    const ProgramResult some = Restore(3, {}, {"/C/3", "C/4"});
    EXPECT_TRUE(Holds(some.output, "2 entries restored"));
    EXPECT_EQ(ReadFile(target + "/C/3/3"), "content");
    EXPECT_EQ(StatusOf("C/4").st_ino, StatusOf("C/3/3").st_ino);
    EXPECT_FALSE(fs::exists(target + "/C/1"));

    // A directory in the first one's place leaves the content to the next one.
    fs::create_directory(target + "/C/1");
    const std::string errors = Restore(3).errors;
    EXPECT_TRUE(Holds(errors, "C:/../2: Refused") && Holds(errors, "/C/1: There is a directory")) << errors;
    EXPECT_EQ(StatusOf("C/4").st_ino, StatusOf("C/3/3").st_ino);
    EXPECT_EQ(StatusOf("C/4").st_nlink, 2u);
    EXPECT_TRUE(fs::is_directory(target + "/C/1"));
}

TEST_F(RestoreProgram, RecordsWithoutFileAreReportedAndListed)
{
    auto mixed = UnixRecord({}, S_IFDIR | 0755);
    mixed.SetFilePath(JobPath({{0x602, "a"}, {0x700, "b"}, {0x602, "c"}}));
    MakeSnapshot({
        EntryOf(Backup::File::YOdsMetadata(JobPath({{0x700, "server"}, {0x700, "object"}}))),
        EntryOf(WindowsRecord({{"C:", "link"}}, 0x420)),
        EntryOf(mixed),
        EntryOf(WindowsRecord({{"C:", "nothing"}}, 0x20)),
        WindowsFile({}, "no path"),
        Directory({}),
        WindowsFile({{":?", "no name"}}, "x"),
        WindowsFile({{"C:", "good"}, {"\\\\?\\D:", "two"}}, "good", 0x27),
    });
    const std::string errors = Restore(3).errors;
    for (const char* expected : {"/server/object: An ODS object is not a file", "/C/link: A reparse point",
                                 "/C/nothing: The snapshot has no content", "Entry 5: The record has no path",
                                 "Entry 6: The record has no path", ":?/no name: Refused"})
        EXPECT_TRUE(Holds(errors, expected));
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
