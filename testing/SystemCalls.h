// Counts the system calls of a piece of work, as a tracer of its process sees them.
#pragma once

#include <functional>
#include <optional>

namespace Testing {

/// Runs the work in a child process and returns the number of its system calls, those of starting and ending
/// the child included: take the difference of two counts. Nothing where the machine lets no process trace
/// another. Throws a std::runtime_error where the work ends by an exception.
std::optional<unsigned long> CountSystemCalls(const std::function<void()>& work);

} // namespace Testing
