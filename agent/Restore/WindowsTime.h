// The times of Windows records.
#pragma once

#include <ctime>
#include <optional>

namespace Agent {

/// The time that the number stands for: units of 100 ns since 1601, or seconds since 1970 where the number is
/// so small (below 2^36) that it would otherwise lie within two hours of the year 1601. Nothing for 0, which
/// means that there is no time, and for what no calendar of the source has (2^63 and more).
std::optional<timespec> TimeOfWindows(unsigned long long number);

} // namespace Agent
