// Fails the n-th system call or allocation of a piece of work, for n = 1, 2, 3 ... until a run meets no
// fault, once and for good, and checks the state after each failure. Each run is a child process, which then
// runs the scenario again without a fault. That shows leaks in the balance of allocations, and damage by the
// fault. Calls of the C library, operator new and OpenSSL's allocations of the executable and its shared
// libraries are counted. For work on one thread.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string_view>

namespace Testing {

class Faults
{
public:
    /// Does the work, during which the fault strikes. Returns true if it ended neither by a YError or another
    /// std::exception, nor by returning false. The scenario checks the state that remains.
    bool Try(const std::function<bool()>& work);
    /// Does work that returns nothing.
    template <class Work>
    bool TryAll(Work work)
    {
        return Try([&] {
            work();
            return true;
        });
    }
    /// Returns the error number that the fault gave a system call; 0 if it struck no system call, or left no
    /// memory to report it. A YError that ends the work must carry it.
    int StruckError() const;
    /// Returns true if the work could clean up: no system call that removes something failed, and calls did
    /// not fail for good.
    bool CouldCleanUp() const;
    bool EndedWell() const { return m_endedWell; }

private:
    bool m_endedWell = false;
};

/// When a process fills its caches. If in each run, leaks cannot be distinguished from them.
enum class FirstUse
{
    Before,
    InEachRun
};

/// Checks a scenario, which prepares what it needs, calls Try once, and checks by EXPECT_... that what was
/// reported is so, that objects can still be used, and that no name holds half of something. The code under
/// test repeats a call that a signal interrupts, but for those in `notRepeated`. A sample of the faults, or
/// each of them where the environment has BACKUP_FAULTS=full, or full=KIND, which also prints how many there
/// were. For a debugger, BACKUP_FAULTS=KIND:NUMBER runs that one alone, in the process itself; kinds count
/// from 0.
void CheckWithFaults(const std::function<void(Faults&)>& scenario,
                     std::initializer_list<std::string_view> notRepeated = {},
                     FirstUse firstUse = FirstUse::Before);

/// Checks that a result is the right one, which is that of a run without a fault, or is not given at all.
template <class Make>
void CheckResultWithFaults(const Make& make, std::initializer_list<std::string_view> notRepeated = {})
{
    const auto right = make();
    CheckWithFaults(
        [&](Faults& faults) {
            decltype(make()) made;
            if (faults.TryAll([&] { made = make(); })) {
                EXPECT_EQ(made, right);
            }
        },
        notRepeated);
}

} // namespace Testing
