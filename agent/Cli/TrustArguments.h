// What the user writes for a server and for a time.
#pragma once

#include <string>

namespace Agent {

struct Endpoint
{
    std::string host; ///< without brackets
    std::string port; ///< 1 to 65535
};

/// "HOST:PORT", or "[ADDRESS]:PORT" for an IPv6 address. Raises UsageError.
Endpoint ParseEndpoint(const std::string& text);
/// Seconds since 1970 out of "2001-02-03T04:05:06Z", "2001-02-03", or the seconds themselves. Raises
/// UsageError.
long long ParseTime(const std::string& text);

} // namespace Agent
