// Fails the n-th system call or allocation of a piece of work, for n = 1, 2, 3 ... until a run meets no
// fault, once and for good, and looks at what each failure leaves behind. Each run is a child process, with a
// second one of the same scenario behind it that meets no fault: so leaks show in the balance of allocations,
// and so does whatever the fault has spoilt. What links this has its calls of the C library, its operator new
// and OpenSSL's memory pass through here, those of the shared libraries included. One thread.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <string_view>

namespace Testing {

class Faults
{
public:
    /// Does the work, and meets the fault in it, if one is due. Whether it ended well: neither by a YError
    /// nor by a std::exception, nor with the answer false. What it leaves behind is for the scenario to
    /// check.
    bool Try(const std::function<bool()>& work);
    /// The same for work that has no answer.
    template <class Work>
    bool TryAll(Work work)
    {
        return Try([&] {
            work();
            return true;
        });
    }
    /// The number of the error that the fault gave a system call; 0 if it struck none, or took the memory for
    /// a report of it. A YError that ends the work must carry it.
    int StruckError() const;
    /// Whether the work could clean up behind itself: no system call failed that removes something, or for
    /// good.
    bool CouldCleanUp() const;
    bool EndedWell() const { return m_endedWell; }

private:
    bool m_endedWell = false;
};

/// When a process fills what it keeps from the first use on. In each run, leaks aren't told from that.
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
