// Restores of unusual snapshots, and into targets that are unusual or fail: what can be restored is.
#include "agent/Restore/TargetTree.h"
#include "agent/Restore/WindowsTime.h"

#include "testing/CallHook.h"
#include "testing/OrdinaryUser.h"
#include "testing/RestoreFixture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <sys/resource.h>
#include <unistd.h>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

using RestoreProgram = RestoreFixture;

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
    std::vector<Recorded> entries = {FileWith("file", "deep")};
    for (int level = 0; level < 300; ++level)
        entries = {Directory("d", std::move(entries))};
    MakeSnapshot(entries);
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
    Recorded missing = FileWith("kept", "");
    missing.node.size = 1;
    missing.node.content = {Agent::Repo::Id()};
    RestoreOf(3, {FileWith("dir", "a file for a directory"), FileWith("good", "good"), missing});
    EXPECT_EQ(ReadFile(target + "/kept"), "old content");
    EXPECT_TRUE(fs::is_directory(target + "/dir"));
    EXPECT_EQ(ReadFile(target + "/good"), "good");
    EXPECT_EQ(std::distance(fs::directory_iterator(target), {}), 3) << "no temporary stays";
}

TEST_F(RestoreProgram, FailureAfterWritingIsReported)
{
    MakeSnapshot({FileWith("a", "content", 0644, 7), FileWith("b", "content", 0644, 7)});
    const struct
    {
        const char* function; // that fails: a file system may report lost data only when the file is closed
        const char* entry;
        int exitCode;
        const char* expected;
        std::ptrdiff_t entries;
    } rows[] = {{"close", ".kbagent-restore-", 3, "/a: Failed to write file", 0},
                {"syncfs", "", 1, "error: Failed to write to disk", 2},
                {"unlinkat", ".kbagent-restore-", 3, "/b: temporary name not removed: ", 3}};
    for (const auto& row : rows) {
        fs::remove_all(target);
        const auto fail = [&](const HookedCall& call) {
            // The name appears, so the kernel leaves the temporary one.
            if (call.function == "renameat" && fs::exists(target + "/a"))
                fs::create_hard_link(target + "/a", target + "/b");
            if (call.function == row.function && Holds(call.name, row.entry))
                CallHook::Fail(EIO);
        };
        const ProgramResult result = Restore(row.exitCode, Hooked(fail));
        EXPECT_TRUE(Holds(result.errors, row.expected));
        EXPECT_EQ(std::distance(fs::directory_iterator(target), {}), row.entries) << row.expected;
    }
}

TEST_F(RestoreProgram, EntryWithoutAttributesCountsOnceAsFailed)
{
    MakeSnapshot({Directory("dir", {FileWith("file", "content", 04755)}), LinkTo("link", "file")});
    const auto fail = [](const HookedCall& call) {
        if (call.function == "fchown")
            CallHook::Fail(EPERM);
    };
    const ProgramResult result = Restore(3, Hooked(fail));
    EXPECT_TRUE(Holds(result.output, ", 2 failed\n"));
    EXPECT_TRUE(Holds(result.errors, "; set-user-id or set-group-id bit not restored"));
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 3) << "with the snapshot's name";
    EXPECT_EQ(StatusOf("dir/file").st_mode & 07777, 0755u);
}

TEST_F(RestoreProgram, InterruptEndsWaitForDisk)
{
    MakeSnapshot({FileWith("file", "content")});
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
    MakeSnapshot({FileWith("a", "1"), FileWith("b", "2"), FileWith("c", "3")});
    int calls = 0;
    const auto fail = [&calls](const HookedCall& call) {
        if (call.function == std::string("renameat") && Holds(call.name, ".kbagent-restore-") && ++calls > 1)
            CallHook::Fail(ENOSPC);
    };
    const std::string errors = Restore(1, Hooked(fail)).errors;
    EXPECT_TRUE(Holds(errors, "error: The target is full: /b: ") &&
                Holds(errors, "; 1 entries were restored") && !Holds(errors, ".kbagent-restore-"));
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 2) << "with the snapshot's name";
    EXPECT_EQ(ReadFile(target + "/a"), "1");
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
