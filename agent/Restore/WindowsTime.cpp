#include "agent/Restore/WindowsTime.h"

namespace Agent {

std::optional<timespec> TimeOfWindows(unsigned long long number)
{
    constexpr unsigned long long EndOfSeconds = 1ull << 36;
    constexpr unsigned long long EndOfTimes = 1ull << 63;
    constexpr unsigned long long UnitsPerSecond = 10'000'000;
    constexpr long long SecondsTo1970 = 11'644'473'600;

    if (number == 0 || number >= EndOfTimes)
        return std::nullopt;
    timespec time{};
    if (number < EndOfSeconds) {
        time.tv_sec = static_cast<time_t>(number);
    } else {
        time.tv_sec = static_cast<time_t>(static_cast<long long>(number / UnitsPerSecond) - SecondsTo1970);
        time.tv_nsec = static_cast<long>(number % UnitsPerSecond * 100);
    }
    return time;
}

} // namespace Agent
