// SIGINT, SIGTERM and SIGHUP end a run cleanly: they set a flag, which long work asks for.
#pragma once

namespace Agent {

/// Called once, by the program.
void CatchInterrupts();
/// From now on these signals end the process at once: for a command that leaves nothing to be cleaned up.
void EndOnInterrupts();
/// Whether the user asked the program to end. A command then cleans up and raises.
bool IsInterrupted();

} // namespace Agent
