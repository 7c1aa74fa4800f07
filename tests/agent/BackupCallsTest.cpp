// Backups into a repository while a call of the C library fails: the repository stays sound, and a run that
// claims success has stored everything.
#include "agent/Access/TreeWalk.h"
#include "agent/Inspect/RepositoryCheck.h"

#include "testing/Calls.h"
#include "testing/Raises.h"
#include "testing/RepositoryFixture.h"
#include "testing/Tree.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <map>
#include <new>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Testing;
namespace fs = std::filesystem;
namespace Repo = Agent::Repo;
using Repo::Id;

namespace {

// Shared with the program's process.
std::atomic<long>& s_calls =
    *new (mmap(nullptr, sizeof(std::atomic<long>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
        std::atomic<long>(0);
long s_target = 0;
int s_error = 0;
bool s_isForGood = false;

// No run waits for the disk.
std::optional<long> FailInTurn(const Call& call)
{
    const long number = ++s_calls;
    if (number == s_target || (s_isForGood && s_target != 0 && number > s_target)) {
        errno = s_error;
        return call.failed;
    }
    const std::string_view function = call.function;
    return function == "fsync" || function == "syncfs" ? std::optional(0L) : std::nullopt;
}

class Findings : public Agent::ICheckObserver
{
public:
    void OnStage(const std::string&) override {}
    void OnError(const std::string& text) override { errors += text + "\n"; }
    void OnHint(const std::string&) override {}
    void OnTouched(const Repo::StoredSnapshot&, const std::string&, const std::string&) override {}
    void OnProgress(const Agent::ProgressFacts&) override {}

    std::string errors;
};

struct Fault
{
    const char* label;
    int error;
    bool isForGood;
};

class BackupCalls : public RepositoryFixture, public ::testing::WithParamInterface<Fault>
{
protected:
    // The trees of the source in all snapshots, after a check that finds no error.
    std::multiset<std::string> Trees() const
    {
        Repo::Repository opened = Repo::Repository::Open(
            std::make_shared<Repo::LocalBackend>(repository.c_str()), Repo::Secret(Repo::AsBytes(password)));
        Findings findings;
        Agent::CheckRepository(opened, Agent::PackSubset(), findings);
        EXPECT_EQ(findings.errors, "");
        std::multiset<std::string> trees;
        opened.LoadIndex();
        for (const Repo::StoredSnapshot& stored : opened.LoadSnapshots({})) {
            std::optional<Id> tree;
            CatchError([&] { tree = Agent::FindEntry(opened, stored.snapshot.tree, source).node.subtree; });
            trees.insert(tree ? tree->ToHex() : "none");
        }
        return trees;
    }
    // Runs a backup whose call of this number fails, none if it is 0.
    ProgramResult BackUp(long number) const
    {
        const auto prepare = [this, number] {
            setenv("KBAGENT_PASSWORD", password.c_str(), 1);
            alarm(60);
            s_calls = 0;
            s_target = number;
            s_error = GetParam().error;
            s_isForGood = GetParam().isForGood;
            g_callFilter = FailInTurn;
        };
        return RunProgram({"backup", "-r", repository, "--force", source},
                          {.user = 0, .prepare = prepare, .isLinked = true});
    }
    // The repository as it was before.
    void Reset() const
    {
        fs::remove_all(repository);
        fs::copy(before, repository, fs::copy_options::recursive);
    }

    const std::string before = directory / "before";
};

TEST_P(BackupCalls, FailedCallLeavesSoundRepository)
{
    MakeTree(source, {Dir("d"), File("d/small", "small"), File("d/same", "small"), Dir("d/e"),
                      File("large", std::string(1200000, 'l')), Hard("hard", "large"),
                      Link("link", "d/small"), Fifo("fifo")});
    Create();
    fs::rename(repository, before);
    Reset();
    ASSERT_EQ(BackUp(0).exitCode, 0);
    const long calls = s_calls;
    const std::multiset<std::string> complete = Trees();
    const char* const form = std::getenv("BACKUP_FAULTS");
    const long step = form != nullptr && std::string_view(form) == "full" ? 1 : std::max(calls / 12, 1L);
    std::map<int, int> exits;
    for (long number = 1; number <= calls; number += step) {
        Reset();
        const ProgramResult result = BackUp(number);
        SCOPED_TRACE("call " + std::to_string(number) + ": " + std::to_string(result.exitCode) + " " +
                     result.errors);
        ++exits[result.exitCode];
        const std::multiset<std::string> trees = Trees();
        EXPECT_TRUE(result.exitCode == 0 || result.exitCode == 1 || result.exitCode == 3);
        EXPECT_TRUE(result.exitCode == 0 || !result.errors.empty());
        if (result.exitCode == 0) {
            EXPECT_EQ(trees, complete);
        } else if (result.exitCode == 3) {
            EXPECT_EQ(trees.size(), 1u);
        }
        fs::remove_all(repository + "/locks");
        ASSERT_EQ(BackUp(0).exitCode, 0) << "the next backup";
        EXPECT_TRUE(Trees().contains(*complete.begin()));
    }
    for (const auto& [exitCode, count] : exits)
        std::printf("exit code %d: %d times\n", exitCode, count);
}

INSTANTIATE_TEST_SUITE_P(Errors, BackupCalls,
                         testing::Values(Fault{"InputOutputErrorOnce", EIO, false},
                                         Fault{"FullDiskForGood", ENOSPC, true}),
                         [](const auto& fault) { return std::string(fault.param.label); });

// A file system without modes that can't make directories durable.
std::optional<long> RefuseModes(const Call& call)
{
    const std::string_view function = call.function;
    struct stat status;
    const bool isMode = function == "chmod" || function == "fchmod";
    const bool isSync =
        function == "fsync" && fstat(call.descriptor, &status) == 0 && S_ISDIR(status.st_mode);
    if (!isMode && !isSync)
        return std::nullopt;
    errno = isMode ? EPERM : EINVAL;
    return -1;
}

pid_t s_program = 0;
const char* s_slow = nullptr;

// The program is interrupted while it makes a file durable, which takes as long as the program runs.
std::optional<long> InterruptSync(const Call& call)
{
    if (call.function != std::string_view("fsync"))
        return std::nullopt;
    const std::string file = fs::read_symlink("/proc/self/fd/" + std::to_string(call.descriptor));
    if (file.find(s_slow) == file.npos)
        return 0L;
    kill(s_program, SIGTERM);
    while (kill(s_program, 0) == 0)
        usleep(10000);
    return 0L;
}

class DiskOfBackup : public RepositoryFixture
{
protected:
    DiskOfBackup() { directory.Write("source/f", "content"); }

    void BackUp(int exitCode, CallFilter filter, const char* slow = nullptr) const
    {
        const auto prepare = [filter, slow] {
            alarm(60);
            s_program = getpid();
            s_slow = slow;
            g_callFilter = filter;
        };
        Run(exitCode, {"backup", source}, {.prepare = prepare, .isLinked = true});
    }
};

TEST_F(DiskOfBackup, RefusesModesAndDurableDirectories)
{
    g_callFilter = RefuseModes;
    Create();
    g_callFilter = nullptr;
    BackUp(0, RefuseModes);
    Run(0, "check --read-data");
}

TEST_F(DiskOfBackup, SlowSyncIsNotAwaitedAfterInterrupt)
{
    Create();
    for (const char* slow : {"/locks/", "/data/", "/index", "/snapshots"}) {
        BackUp(128 + SIGTERM, InterruptSync, slow);
        EXPECT_TRUE(Files("locks").empty()) << slow;
        EXPECT_EQ(CountSnapshots(), 0u) << slow;
    }
    BackUp(0, nullptr);
    Run(0, "check --read-data");
    for (const fs::path& file : Files(""))
        EXPECT_EQ(file.string().find("-tmp-"), std::string::npos) << file;
}

} // namespace
