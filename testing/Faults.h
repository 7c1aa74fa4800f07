// Fails the n-th system call or allocation of a piece of work, for n = 1, 2, 3 ... until a run meets no
// fault, and checks the state after each failure. A fault strikes once or for good. Each run is a child
// process, which then repeats the scenario without a fault. That shows leaks in the balance of allocations,
// and damage by the fault. Calls of the C library, operator new and OpenSSL's allocations of the executable
// and its shared libraries are counted. Work on several threads makes its calls in another order in each run,
// so the scenario can't rely on which of them a fault strikes.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string_view>

namespace Testing {

class Faults
{
public:
    /// Does the work, during which the fault strikes. Returns true if the work did not fail: it neither
    /// raised a YError or another std::exception, nor returned false. The scenario checks the state that
    /// remains.
    bool Try(const std::function<bool()>& work);
    /// Does work that returns void.
    template <class Work>
    bool TryAll(Work work)
    {
        return Try([&] {
            work();
            return true;
        });
    }
    /// Returns the error number with which the fault made a system call fail; 0 if it struck no system call,
    /// or left no memory to report it. A YError that ends the work must have this number.
    int StruckError() const;
    /// Returns true if the work could clean up: no system call that removes something failed, and not all
    /// calls failed from then on.
    bool CouldCleanUp() const;
    /// Returns true unless all allocations failed from the fault on.
    bool HadMemory() const;
    bool EndedWell() const { return m_endedWell; }

private:
    bool m_endedWell = false;
};

/// When a process fills its caches. If it does so in each run, leaks cannot be distinguished from caches.
enum class FirstUse
{
    Before,
    InEachRun
};

/// Checks a scenario, which prepares its objects, calls Try once, and checks by EXPECT_... that the reported
/// result is true, that objects can still be used, and that no name has incomplete contents. The code under
/// test repeats a call that a signal interrupts, except those in `notRepeated`. Runs a sample of the faults.
/// With BACKUP_FAULTS=full, or full=KIND, runs each of them and prints their number. With
/// BACKUP_FAULTS=KIND:NUMBER runs one fault in the process itself, for a debugger; kinds count from 0.
void CheckWithFaults(const std::function<void(Faults&)>& scenario,
                     std::initializer_list<std::string_view> notRepeated = {},
                     FirstUse firstUse = FirstUse::Before);

/// Checks that a result equals that of a run without a fault, or that there is no result.
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
