// Calls what the system does not interrupt, such as a sync of a slow disk, so that an interrupt of the user
// ends the program all the same.
#pragma once

#include <functional>

namespace Agent {

/// Calls `work` in a child process and returns its result: 0, or an error number below 256. Raises
/// InvalidState if the user interrupts; the child then ends on its own. `work` is called in this process if
/// there can be no child. It may only make system calls, since other threads may hold any lock.
int CallInChild(const std::function<int()>& work);

} // namespace Agent
