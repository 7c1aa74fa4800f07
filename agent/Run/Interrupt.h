// SIGINT, SIGTERM and SIGHUP end a run cleanly: they set a flag, which long work asks for.
#pragma once

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
/// Whether the user asked the program to end. A command then cleans up and raises.
bool IsInterrupted();
/// The signal that asked for it, 0 for none.
int InterruptingSignal();

} // namespace Agent
