// The parsing of the trust command's arguments.
#pragma once

#include "agent/Trust/Connection.h"

#include <string>

namespace Agent {

/// Parses "HOST:PORT", or "[ADDRESS]:PORT" for an IPv6 address. Raises UsageError.
Endpoint ParseEndpoint(const std::string& text);

/// Parses "2001-02-03T04:05:06Z", "2001-02-03" (the beginning of that day in UTC) or a number of seconds.
/// Returns seconds since 1970. Raises UsageError.
long long ParseTime(const std::string& text);

} // namespace Agent
