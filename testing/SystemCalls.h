// The system calls of a process: counted as a tracer sees them, or disabled.
#pragma once

#include <functional>
#include <optional>

namespace Testing {

/// Runs the work in a child process and returns the number of its system calls, including those of its
/// threads and children, and of starting and ending the child. No other child exists. Use the difference of
/// two counts. Returns nothing if the machine lets no process trace another. Throws a std::runtime_error if
/// the work throws an exception.
std::optional<unsigned long> CountSystemCalls(const std::function<void()>& work);

/// From now on the call fails with ENOSYS in this process and its children, as on a kernel without it.
/// Returns false if the machine does not allow that.
bool TakeAwaySystemCall(int number);

} // namespace Testing
