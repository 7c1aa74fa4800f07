// An interrupt ends each command that changes snapshots and packs after a few calls, also on a slow disk.
#include "testing/CallHook.h"
#include "testing/RepositoryFixture.h"

#include <csignal>
#include <unistd.h>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

struct SlowCommand
{
    const char* words;
    const char* call; // the first of these in a directory of packs is interrupted

    friend void PrintTo(const SlowCommand& command, std::ostream* out) { *out << command.words; }
};

class SlowDisk : public RepositoryFixture, public ::testing::WithParamInterface<SlowCommand>
{};

TEST_P(SlowDisk, IsNotAwaitedAfterInterrupt)
{
    Create();
    CreateRepository(directory / "other", password);
    directory.Write("password", password);
    for (const char* name : {"secret", "d/e/secret"}) {
        directory.Write("source/" + std::string(name), name);
        Run(0, {"backup", "-q", source});
    }
    std::string words = GetParam().words;
    if (words == "repair packs")
        words += " " + Files("data").front().filename().string();
    const auto act = [this, calls = 0](const HookedCall& call) mutable {
        const bool isOfPacks = call.name.find("/data") != std::string::npos;
        if (!isOfPacks || (call.function != "getdents64" && call.function != "pread"))
            return;
        if (calls == 0 && call.function != GetParam().call)
            return;
        if (calls++ == 0)
            kill(getpid(), SIGTERM);
        directory.Write("calls", std::to_string(calls));
        usleep(50000); // a listing of all packs makes 256 calls at least
    };
    Run(128 + SIGTERM, Words(words), Hooked(act));
    ASSERT_TRUE(fs::exists(directory / "calls"));
    EXPECT_LT(std::stoi(ReadFile(directory / "calls")), 40) << "two seconds on this disk";
    EXPECT_TRUE(Files("locks").empty());
    Run(0, "check --read-data");
}

INSTANTIATE_TEST_SUITE_P(
    Commands, SlowDisk,
    ::testing::Values(
        SlowCommand{"prune", "getdents64"}, SlowCommand{"forget --keep-last 1 --prune", "getdents64"},
        SlowCommand{"repair index", "getdents64"}, SlowCommand{"repair packs", "getdents64"},
        SlowCommand{"repair snapshots", "getdents64"},
        SlowCommand{"copy -r other --from-repo repo --from-password-file password", "getdents64"},
        SlowCommand{"rewrite --forget --exclude secret", "pread"}, SlowCommand{"recover", "pread"}));

} // namespace
