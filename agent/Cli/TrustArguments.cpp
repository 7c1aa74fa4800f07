#include "agent/Cli/TrustArguments.h"

#include "agent/Cli/Command.h"

#include <array>
#include <charconv>
#include <chrono>
#include <optional>
#include <string_view>

namespace Agent {

namespace {

template <class Number>
std::optional<Number> ParseNumber(std::string_view text)
{
    Number number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

// Returns true if the text has the form, in which "0" matches any digit and other characters match
// themselves.
bool HasForm(std::string_view text, std::string_view form)
{
    if (text.size() != form.size())
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (form[i] == '0' ? !isDigit : text[i] != form[i])
            return false;
    }
    return true;
}

std::optional<long long> ParseCalendar(std::string_view text)
{
    using namespace std::chrono;
    const bool hasClock = HasForm(text, "0000-00-00T00:00:00Z");
    if (!hasClock && !HasForm(text, "0000-00-00"))
        return std::nullopt;
    const auto number = [text](std::size_t offset, std::size_t count) {
        return *ParseNumber<unsigned int>(text.substr(offset, count));
    };
    const year_month_day date(year(static_cast<int>(number(0, 4))), month(number(5, 2)), day(number(8, 2)));
    std::array<unsigned int, 3> clock{};
    for (std::size_t i = 0; hasClock && i < clock.size(); ++i)
        clock[i] = number(11 + 3 * i, 2);
    if (!date.ok() || clock[0] > 23 || clock[1] > 59 || clock[2] > 59)
        return std::nullopt;
    const sys_seconds time = sys_days(date) + hours(clock[0]) + minutes(clock[1]) + seconds(clock[2]);
    return time.time_since_epoch().count();
}

} // namespace

Endpoint ParseEndpoint(const std::string& text)
{
    const std::size_t colon = text.rfind(':');
    if (colon != std::string::npos) {
        const std::string port = text.substr(colon + 1);
        const bool isPort = ParseNumber<unsigned short>(port).value_or(0) != 0;
        std::string host = text.substr(0, colon);
        if (host.size() > 2 && host.starts_with('[') && host.ends_with(']'))
            host = host.substr(1, host.size() - 2);
        else if (host.find(':') != std::string::npos)
            host.clear(); // an IPv6 address without brackets has no clear end
        if (isPort && !host.empty())
            return {host, port};
    }
    throw UsageError("Not HOST:PORT or [ADDRESS]:PORT: " + text);
}

long long ParseTime(const std::string& text)
{
    std::optional<long long> time = ParseCalendar(text);
    if (!time)
        time = ParseNumber<long long>(text);
    if (!time)
        throw UsageError("Not a time like 2001-02-03T04:05:06Z: " + text);
    return *time;
}

} // namespace Agent
