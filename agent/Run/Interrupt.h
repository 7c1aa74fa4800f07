// SIGINT, SIGTERM and SIGHUP end a run cleanly: they set a flag, which long operations check. SIGUSR1 asks
// for the progress.
#pragma once

#include <functional>

namespace Agent {

/// Installs the handlers. The program calls it once.
void CatchInterrupts();
/// While an object of this class exists, these signals end the process at once. For operations that may wait
/// for long and leave nothing to be cleaned up.
class EndingOnInterrupts
{
public:
    EndingOnInterrupts();
    ~EndingOnInterrupts();
    EndingOnInterrupts(const EndingOnInterrupts&) = delete;
    EndingOnInterrupts& operator=(const EndingOnInterrupts&) = delete;
};
/// While an object of this class exists, SIGHUP is ignored. A process that has locked a repository needs
/// this: restic sends SIGHUP to the process that a lock names, to find out whether it exists.
class IgnoringHangUps
{
public:
    IgnoringHangUps();
    ~IgnoringHangUps();
    IgnoringHangUps(const IgnoringHangUps&) = delete;
    IgnoringHangUps& operator=(const IgnoringHangUps&) = delete;
};
/// Raises InvalidState if the user asked the program to end.
void RaiseIfInterrupted();
/// Returns true if the user asked the program to end. A command then cleans up and raises.
bool IsInterrupted();
/// Returns the number of the signal that interrupted the program, or 0.
int InterruptingSignal();

/// Returns true if SIGUSR1 has come since the last call.
bool TakeProgressRequest();

/// For work that a signal does not interrupt, such as a sync of a slow disk. Calls `work` in a child process
/// and returns its result, which is 0 or an error number below 256. Raises InvalidState if the user
/// interrupts; the child then ends on its own. If no child can be created, `work` is called in this process.
/// `work` may only make system calls, since other threads may hold any lock.
int CallInChild(const std::function<int()>& work);

} // namespace Agent
