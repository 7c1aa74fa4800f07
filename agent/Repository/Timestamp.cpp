#include "agent/Repository/Timestamp.h"

#include <algorithm>
#include <chrono>
#include <ctime>

namespace Agent::Repo {

namespace {

constexpr std::int64_t FirstSecond = -62167219200; // of the year 0
constexpr std::int64_t LastSecond = 253402300799;  // of the year 9999
constexpr std::int64_t DaySeconds = 86400;
constexpr int FractionDigits = 9;

// Reads fixed fields of digits and punctuation.
class TextReader
{
public:
    explicit TextReader(std::string_view text) : m_text(text) {}

    bool Take(char byte)
    {
        if (m_text.empty() || m_text.front() != byte)
            return false;
        m_text.remove_prefix(1);
        return true;
    }
    bool TakeNumber(std::size_t digits, int limit, int& number)
    {
        number = 0;
        for (std::size_t i = 0; i < digits; ++i) {
            if (!IsAtDigit())
                return false;
            number = number * 10 + TakeDigit();
        }
        return number <= limit;
    }
    // Nanoseconds of the digits after a point.
    bool TakeFraction(std::uint32_t& nanoseconds)
    {
        if (!IsAtDigit())
            return false;
        nanoseconds = 0;
        for (int i = 0; i < FractionDigits; ++i)
            nanoseconds = nanoseconds * 10 + (IsAtDigit() ? static_cast<std::uint32_t>(TakeDigit()) : 0);
        while (IsAtDigit())
            TakeDigit();
        return true;
    }
    bool IsAtEnd() const { return m_text.empty(); }

private:
    bool IsAtDigit() const { return !m_text.empty() && m_text.front() >= '0' && m_text.front() <= '9'; }
    int TakeDigit()
    {
        const int digit = m_text.front() - '0';
        m_text.remove_prefix(1);
        return digit;
    }

    std::string_view m_text;
};

// Appends the last digits of a number, this many.
void AppendNumber(unsigned int number, int digits, std::string& out)
{
    out.append(static_cast<std::size_t>(digits), '0');
    for (auto digit = out.rbegin(); digits > 0; --digits, number /= 10)
        *digit++ = static_cast<char>('0' + number % 10);
}

void AppendField(char separator, unsigned int number, std::string& out)
{
    out += separator;
    AppendNumber(number, 2, out);
}

bool TakeZone(TextReader& reader, std::int32_t& offset)
{
    offset = 0;
    if (reader.Take('Z'))
        return true;
    const bool isBehind = reader.Take('-');
    int hours = 0;
    int minutes = 0;
    if ((!isBehind && !reader.Take('+')) || !reader.TakeNumber(2, 23, hours) || !reader.Take(':') ||
        !reader.TakeNumber(2, 59, minutes))
        return false;
    offset = (hours * 60 + minutes) * (isBehind ? -60 : 60);
    return true;
}

} // namespace

Timestamp Timestamp::Local(std::int64_t seconds, std::uint32_t nanoseconds)
{
    const std::int64_t inside = std::clamp(seconds, FirstSecond, LastSecond);
    Timestamp time{inside, nanoseconds, 0};
    if (inside != seconds) {
        time.nanoseconds = inside < seconds ? 999'999'999 : 0;
        return time;
    }
    const std::time_t instant = inside;
    std::tm local{};
    if (localtime_r(&instant, &local) == nullptr || local.tm_gmtoff % 60 != 0)
        return time;
    const std::int64_t shifted = inside + local.tm_gmtoff;
    if (shifted >= FirstSecond && shifted <= LastSecond)
        time.offset = static_cast<std::int32_t>(local.tm_gmtoff);
    return time;
}

Timestamp Timestamp::Now()
{
    constexpr std::int64_t Billion = 1'000'000'000;
    const auto elapsed = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count();
    return Local(now / Billion, static_cast<std::uint32_t>(now % Billion));
}

std::optional<Timestamp> Timestamp::Parse(std::string_view text)
{
    TextReader reader(text);
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    Timestamp time;
    if (!reader.TakeNumber(4, 9999, year) || !reader.Take('-') || !reader.TakeNumber(2, 12, month) ||
        !reader.Take('-') || !reader.TakeNumber(2, 31, day) || !reader.Take('T') ||
        !reader.TakeNumber(2, 23, hour) || !reader.Take(':') || !reader.TakeNumber(2, 59, minute) ||
        !reader.Take(':') || !reader.TakeNumber(2, 59, second) ||
        (reader.Take('.') && !reader.TakeFraction(time.nanoseconds)) || !TakeZone(reader, time.offset) ||
        !reader.IsAtEnd())
        return std::nullopt;
    const std::chrono::year_month_day date{std::chrono::year(year),
                                           std::chrono::month(static_cast<unsigned int>(month)),
                                           std::chrono::day(static_cast<unsigned int>(day))};
    if (!date.ok())
        return std::nullopt;
    const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
    time.seconds = days * DaySeconds + hour * 3600 + minute * 60 + second - time.offset;
    return time;
}

void Timestamp::AppendTo(std::string& out) const
{
    const std::int64_t shifted = std::clamp(seconds + offset, FirstSecond, LastSecond);
    const std::int64_t days = shifted / DaySeconds - (shifted % DaySeconds < 0 ? 1 : 0);
    const auto inDay = static_cast<unsigned int>(shifted - days * DaySeconds);
    const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(days))};
    AppendNumber(static_cast<unsigned int>(static_cast<int>(date.year())), 4, out);
    AppendField('-', static_cast<unsigned int>(date.month()), out);
    AppendField('-', static_cast<unsigned int>(date.day()), out);
    AppendField('T', inDay / 3600, out);
    AppendField(':', inDay / 60 % 60, out);
    AppendField(':', inDay % 60, out);
    if (nanoseconds != 0) {
        out += '.';
        AppendNumber(nanoseconds, FractionDigits, out);
        out.erase(out.find_last_not_of('0') + 1);
    }
    if (offset == 0) {
        out += 'Z';
        return;
    }
    const auto ahead = static_cast<unsigned int>(offset < 0 ? -offset : offset);
    AppendField(offset < 0 ? '-' : '+', ahead / 3600, out);
    AppendField(':', ahead / 60 % 60, out);
}

std::string Timestamp::ToText() const
{
    std::string text;
    AppendTo(text);
    return text;
}

} // namespace Agent::Repo
