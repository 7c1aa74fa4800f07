// SIGINT, SIGTERM and SIGHUP end a run cleanly: they set a flag, which long work asks for.
#pragma once

#include <functional>

namespace Agent {

/// Called once, by the program.
void CatchInterrupts();
/// While one lives, these signals end the process at once: for what may wait for long, and leaves nothing to
/// be cleaned up.
class EndingOnInterrupts
{
public:
    EndingOnInterrupts();
    ~EndingOnInterrupts();
    EndingOnInterrupts(const EndingOnInterrupts&) = delete;
    EndingOnInterrupts& operator=(const EndingOnInterrupts&) = delete;
};
/// While one lives, SIGHUP is ignored. A process that has locked a repository needs it: restic sends SIGHUP
/// to the process that a lock names, to find out whether it exists.
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
/// Whether the user asked the program to end. A command then cleans up and raises.
bool IsInterrupted();
/// The signal that asked for it, 0 for none.
int InterruptingSignal();

/// For work that the system does not interrupt, such as a sync of a slow disk: calls `work` in a child
/// process and returns its result: 0, or an error number below 256. Raises InvalidState if the user
/// interrupts; the child then ends on its own. `work` is called in this process if there can be no child. It
/// may only make system calls, since other threads may hold any lock.
int CallInChild(const std::function<int()>& work);

} // namespace Agent
