// TCP connections with a deadline. An interrupt of the program ends every wait and raises InvalidState.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <chrono>
#include <string>

namespace Agent {

using Deadline = std::chrono::steady_clock::time_point;

struct Endpoint
{
    std::string host; ///< without brackets
    std::string port; ///< 1 to 65535
};

/// Returns a non-blocking connection. The addresses of the host are tried one after the other, each for its
/// share of the remaining time. Raises NotFound if the host can't be looked up, ETIMEDOUT at the deadline,
/// and otherwise the operating system's error for the last address.
Krt::Util::YUnxHandle ConnectTo(const Endpoint& server, Deadline deadline);

enum class Direction
{
    Read,
    Write
};

/// Waits and returns true if the connection became ready before the deadline.
bool WaitUntilReady(const Krt::Util::YUnxHandle& connection, Direction direction, Deadline deadline);

} // namespace Agent
