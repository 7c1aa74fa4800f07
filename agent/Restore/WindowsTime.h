// The times of Windows records.
#pragma once

#include <ctime>
#include <optional>

namespace Agent {

/// Returns the time of the number. From 2^36 it counts units of 100 ns since 1601. A smaller number, which
/// would be within two hours of 1601, counts seconds since 1970. Returns nothing for 0, which means that
/// there is no time, and for 2^63 and more, which no calendar of the source has.
std::optional<timespec> TimeOfWindows(unsigned long long number);

} // namespace Agent
