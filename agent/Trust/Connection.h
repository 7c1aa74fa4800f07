// TCP connections that are made and waited for within a limit of time, and given up when the program is
// interrupted, which raises InvalidState.
#pragma once

#include "agent/Cli/TrustArguments.h"

#include "Krt/Util/YUnxHandle.h"

#include <chrono>

namespace Agent {

using Deadline = std::chrono::steady_clock::time_point;

/// A connection that never blocks. The name's addresses are tried one after the other, each for its share of
/// the time. Raises NotFound for a name that can't be looked up, the operating system's error for a
/// server that can't be reached, and ETIMEDOUT.
Krt::Util::YUnxHandle ConnectTo(const Endpoint& server, Deadline deadline);

enum class Direction
{
    Read,
    Write
};

/// Whether the connection got ready before the deadline.
bool WaitUntilReady(const Krt::Util::YUnxHandle& connection, Direction direction, Deadline deadline);

} // namespace Agent
