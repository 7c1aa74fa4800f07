// A process that swaps two entries repeatedly until it is destroyed: the attacker of a race.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

inline bool SwapEntries(int directoryA, const std::string& a, int directoryB, const std::string& b)
{
    return renameat2(directoryA, a.c_str(), directoryB, b.c_str(), RENAME_EXCHANGE) == 0;
}

class Flipper
{
public:
    /// Takes two paths. Nothing is swapped while one of them is missing.
    Flipper(const std::string& a, const std::string& b)
        : m_swaps(new (mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                            0)) Counter(0))
    {
        m_child = fork();
        if (m_child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;)
                *m_swaps += SwapEntries(AT_FDCWD, a, AT_FDCWD, b);
        }
        EXPECT_GT(m_child, 0);
    }
    ~Flipper()
    {
        kill(m_child, SIGKILL);
        waitpid(m_child, nullptr, 0);
        munmap(m_swaps, sizeof(Counter));
    }
    Flipper(const Flipper&) = delete;
    Flipper& operator=(const Flipper&) = delete;

    unsigned long GetSwaps() const { return *m_swaps; }

private:
    using Counter = std::atomic<unsigned long>;
    Counter* m_swaps;
    pid_t m_child;
};

/// Calls `prepare`, then `run` while the two are swapped, repeatedly until there were enough swaps. Returns
/// the number of swaps.
template <class Prepare, class Run>
unsigned long SwapDuring(const std::string& a, const std::string& b, Prepare prepare, Run run)
{
    unsigned long swaps = 0;
    while (swaps < 2000) {
        prepare();
        const Flipper flipper(a, b);
        run();
        swaps += flipper.GetSwaps();
    }
    return swaps;
}

} // namespace Testing
