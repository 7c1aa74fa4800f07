#include "testing/Faults.h"

#include "testing/FaultCalls.h"

#include "Krt/Exception/YError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#define FAULTS_WITH_LEAK_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FAULTS_WITH_LEAK_SANITIZER 1
#endif
#endif
#ifdef FAULTS_WITH_LEAK_SANITIZER
#include <sanitizer/lsan_interface.h>
#endif

namespace Testing {

namespace {

using Scenario = std::function<void(Faults&)>;
using Names = std::initializer_list<std::string_view>;

constexpr unsigned long ForGood = ULONG_MAX;
constexpr FaultKind Kinds[] = {
    {"a signal, three times in a row", FaultDomain::SystemCalls, EINTR, 3},
    {"EIO once", FaultDomain::SystemCalls, EIO, 1},
    {"EACCES once", FaultDomain::SystemCalls, EACCES, 1},
    {"ENOMEM once", FaultDomain::SystemCalls, ENOMEM, 1},
    {"ENOSPC for good", FaultDomain::SystemCalls, ENOSPC, ForGood},
    {"EMFILE for good, and no memory from then on", FaultDomain::SystemCalls, EMFILE, ForGood, true},
    {"EIO once, and no memory from then on", FaultDomain::SystemCalls, EIO, 1, true},
    {"a transfer cut short", FaultDomain::Transfers, 0, 1},
    {"all transfers cut short", FaultDomain::Transfers, 0, ForGood},
    {"no memory once", FaultDomain::Memory, 0, 1},
    {"no memory for good", FaultDomain::Memory, 0, ForGood},
    {"no memory for OpenSSL once", FaultDomain::Crypto, 0, 1},
    {"no memory for OpenSSL for good", FaultDomain::Crypto, 0, ForGood},
};

// The number of faults in a sample of each kind, of calls if their number is unknown, and of seconds that a
// run may take.
constexpr unsigned long SampleOfKind = 4;
constexpr unsigned long UnknownCalls = 30;
constexpr unsigned int LongestRun = 60;

// A failure makes OpenSSL keep some pieces that it did not need before; a leak is larger.
constexpr long KeptByOpenSsl = 8;
// They fill caches that later runs use.
constexpr int WarmRuns = 3;
// A thread keeps slots of destroyed locks until it has this many, after about as many runs.
constexpr int RunsUntilLocksAreFreed = 16;

bool g_followsMemory = true;

std::bitset<256> OpenDescriptors()
{
    std::bitset<256> open;
    for (int fd = 0; fd < static_cast<int>(open.size()); ++fd)
        open[static_cast<std::size_t>(fd)] = fcntl(fd, F_GETFD) != -1;
    return open;
}

// Returns true if the code under test continues after the fault without an error.
bool IsHarmless(const FaultKind& kind, Names notRepeated)
{
    return (kind.domain == FaultDomain::Transfers || kind.error == EINTR) &&
           std::find(notRepeated.begin(), notRepeated.end(), StruckCall()) == notRepeated.end();
}

// By contract these functions report an error of their own: an unreadable mount table counts as empty, a
// service manager treats an entry without a status as missing, and the descent policy quotes its error.
bool ReportsItsOwn(const Krt::Exception::YError& error)
{
    constexpr const char* Functions[] = {"GetVolumeUniquePath", "IsFollowableDirectoryFromKrtAttributes",
                                         "Install", "WaitForServiceCreate"};
    return error.GetType() == Krt::ExceptionType::General &&
           std::find(std::begin(Functions), std::end(Functions), error.GetFunction()) != std::end(Functions);
}

void CheckForLeaks([[maybe_unused]] const FaultKind& kind, [[maybe_unused]] unsigned long target)
{
#ifdef FAULTS_WITH_LEAK_SANITIZER
    // This takes long, so it only runs for a few faults of memory.
    if ((kind.domain == FaultDomain::Memory || kind.domain == FaultDomain::Crypto) && target <= 2) {
        EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
    }
#endif
}

int CountFailures()
{
    return ::testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

// A scenario, and the call that a fault strikes in it.
struct Plan
{
    const Scenario& scenario;
    Names notRepeated;
    const FaultKind* kind; // null: no fault
    unsigned long target;
};

[[gnu::noinline]] bool RunOnce(const Scenario& scenario)
{
    Faults faults;
    scenario(faults);
    return faults.EndedWell();
}

// Runs the scenario with the fault, and then without one.
[[noreturn, gnu::always_inline]] inline void RunAsChild(const Plan& plan)
{
    alarm(LongestRun);
    const FaultKind& kind = *plan.kind;
    const int failures = CountFailures();
    const auto descriptors = OpenDescriptors();
    const long objects = g_faultRun.objects;
    const long crypto = g_faultRun.crypto;
    try {
        g_faultRun.kind = &kind;
        g_faultRun.target = plan.target;
        const bool endedWell = RunOnce(plan.scenario);
        EXPECT_TRUE(endedWell || *StruckCall() != '\0') << "it fails without a fault";
        EXPECT_TRUE(endedWell || !IsHarmless(kind, plan.notRepeated)) << "it doesn't go on";
        EXPECT_EQ(OpenDescriptors(), descriptors) << "descriptors stay open";
        g_faultRun.kind = nullptr;
        EXPECT_TRUE(RunOnce(plan.scenario)) << "it fails without a fault, after one";
        for (int run = 0; g_followsMemory && g_faultRun.objects > objects && run < RunsUntilLocksAreFreed;
             ++run)
            RunOnce(plan.scenario);
    } catch (const std::exception& error) {
        ADD_FAILURE() << "raised: " << error.what();
    }
    if (g_followsMemory && CountFailures() == failures) { // stored failures are allocations, too
        EXPECT_LE(g_faultRun.objects, objects) << "objects leak";
        EXPECT_LE(g_faultRun.crypto, crypto + KeptByOpenSsl) << "OpenSSL's objects leak";
        CheckForLeaks(kind, plan.target);
    }
    std::fflush(stdout);
    _exit(CountFailures() != failures);
}

// Runs the scenario without a fault in this process, or with a fault in a child. The stack always has the
// same depth, so that structures sorted by address are equal in all runs.
[[gnu::noinline]] int Run(const Plan& plan)
{
    std::fflush(stdout);
    const pid_t child = plan.kind == nullptr ? -1 : fork();
    if (child == 0)
        RunAsChild(plan);
    if (child < 0)
        return RunOnce(plan.scenario) ? 0 : -1;
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

std::string Describe(const Plan& plan, int status)
{
    return (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "failed") + std::string(" with ") +
           plan.kind->name + ", number " + std::to_string(plan.target) + ", of " + StruckCall();
}

} // namespace

bool Faults::Try(const std::function<bool()>& work)
{
    const struct Arming
    {
        Arming()
        {
            std::fill_n(g_faultRun.calls, FaultDomains, 0);
            g_faultRun.isArmed = true;
        }
        ~Arming() { g_faultRun.isArmed = false; }
    } arming;
    try {
        m_endedWell = work();
    } catch (const Krt::Exception::YError& error) {
        m_endedWell = false;
        g_faultRun.isArmed = false;
        const int struck = StruckError();
        EXPECT_TRUE(struck == 0 || error.GetOsError() == struck || ReportsItsOwn(error))
            << "raised: " << error;
    } catch (const std::exception&) {
        m_endedWell = false;
    }
    return m_endedWell;
}

int Faults::StruckError() const
{
    const FaultKind* const kind = g_faultRun.kind;
    if (kind == nullptr || kind->domain != FaultDomain::SystemCalls || kind->starves)
        return 0;
    return *StruckCall() == '\0' || IsOpenSslStruck() ? 0 : kind->error;
}

bool Faults::CouldCleanUp() const
{
    const FaultKind* const kind = g_faultRun.kind;
    if (kind == nullptr || kind->domain != FaultDomain::SystemCalls || kind->error == EINTR)
        return true;
    return kind->inARow == 1 && !std::string_view(StruckCall()).starts_with("unlink");
}

bool Faults::HadMemory() const
{
    const FaultKind* const kind = g_faultRun.kind;
    return kind == nullptr ||
           !(kind->starves || (kind->domain == FaultDomain::Memory && kind->inARow == ForGood));
}

void CheckWithFaults(const Scenario& scenario, Names notRepeated, FirstUse firstUse)
{
    const char* const form = std::getenv("BACKUP_FAULTS");
    const bool isFull = form != nullptr && std::string_view(form).starts_with("full");
    const char* const only = isFull ? std::strchr(form, '=') : nullptr;
    const char* const name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    g_followsMemory = firstUse == FirstUse::Before;
    Plan plan{scenario, notRepeated, nullptr, 0};
    for (int run = 0; run < WarmRuns && g_followsMemory; ++run)
        EXPECT_EQ(Run(plan), 0) << "it fails without a fault";
    std::array<unsigned long, FaultDomains> calls;
    std::copy_n(g_faultRun.calls, FaultDomains, calls.begin());
    if (const char* const number = form == nullptr ? nullptr : std::strchr(form, ':')) {
        plan.kind = &Kinds[std::atoi(form)];
        plan.target = std::strtoul(number + 1, nullptr, 10);
        RunAsChild(plan);
    }

    unsigned long offset = 0; // makes each kind sample other calls
    for (const FaultKind& kind : Kinds) {
        if (only != nullptr && std::atoi(only + 1) != &kind - Kinds)
            continue;
        const unsigned long all =
            g_followsMemory ? calls[static_cast<std::size_t>(kind.domain)] : UnknownCalls;
        const unsigned long step = isFull ? 1 : std::max(all / SampleOfKind, 1UL);
        plan.kind = &kind;
        plan.target = 1 + offset++ % step;
        unsigned long struck = 0;
        for (int status = 0; status == 0; plan.target += step, ++struck) {
            ForgetStruckCall();
            status = Run(plan);
            EXPECT_EQ(status, 0) << Describe(plan, status);
            if (*StruckCall() == '\0')
                break;
        }
        if (isFull)
            std::printf("faults: %s: %lu: %s\n", name, struck, kind.name);
    }
}

} // namespace Testing
