#include "agent/Forget/Retention.h"

#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <limits>

namespace Agent {

using Repo::StoredSnapshot;
using Repo::Timestamp;

namespace {

constexpr std::size_t MostDigits = 8;
constexpr std::int64_t HourSeconds = 3600;
constexpr std::int64_t DaySeconds = 24 * HourSeconds;
constexpr const char* PeriodNames[] = {"", "hourly", "daily", "weekly", "monthly", "yearly"};
static_assert(std::size(PeriodNames) == RetentionPolicy::PeriodCount);

struct SpanUnit
{
    char letter;
    std::int64_t CalendarSpan::*field;
};

constexpr SpanUnit SpanUnits[] = {{'y', &CalendarSpan::years},
                                  {'m', &CalendarSpan::months},
                                  {'d', &CalendarSpan::days},
                                  {'h', &CalendarSpan::hours}};

bool IsNumber(const std::string& text)
{
    return !text.empty() && text.size() <= MostDigits &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

// The clock's time in the zone of the timestamp, as if that were UTC.
std::chrono::sys_seconds WallTime(const Timestamp& time)
{
    return std::chrono::sys_seconds(std::chrono::seconds(time.seconds + time.offset));
}

std::chrono::year_month_day DateOf(const Timestamp& time)
{
    return std::chrono::floor<std::chrono::days>(WallTime(time));
}

std::int64_t MonthOf(const std::chrono::year_month_day& date)
{
    return static_cast<int>(date.year()) * std::int64_t{12} + static_cast<unsigned int>(date.month()) - 1;
}

// The number of the period that the time is in. `index` is the number of the snapshot.
std::int64_t BucketOf(Period period, const Timestamp& time, std::size_t index)
{
    constexpr std::int64_t DaysFromMonday = 3; // to 1 January 1970
    const auto day = std::chrono::floor<std::chrono::days>(WallTime(time)).time_since_epoch();
    switch (period) {
    case Period::None:
        return static_cast<std::int64_t>(index);
    case Period::Hour:
        return std::chrono::floor<std::chrono::hours>(WallTime(time)).time_since_epoch().count();
    case Period::Day:
        return day.count();
    case Period::Week:
        return std::chrono::floor<std::chrono::weeks>(day + std::chrono::days(DaysFromMonday)).count();
    case Period::Month:
        return MonthOf(DateOf(time));
    case Period::Year:
        break;
    }
    return static_cast<int>(DateOf(time).year());
}

std::string TagsText(const std::vector<std::string>& tags)
{
    return "[" + Joined(tags, ", ") + "]";
}

// Keeps one snapshot of each period, while it has a count left or the snapshots are new enough.
class PeriodRule
{
public:
    PeriodRule(Period period, int count)
        : m_period(period), m_left(count),
          m_reason(period == Period::None ? "last snapshot" : NameOf(period) + " snapshot")
    {}
    PeriodRule(Period period, const CalendarSpan& span, const Timestamp& newest)
        : m_period(period), m_left(RetentionPolicy::Unlimited), m_begin(span.Before(newest)),
          m_reason((period == Period::None ? "" : NameOf(period) + " ") + "within " + span.ToText())
    {}

    // Adds the reason to keep the snapshot, if there is one.
    void Apply(const Timestamp& time, std::size_t index, bool isOldest, std::vector<std::string>& reasons)
    {
        if (m_left == 0 || (m_begin && time <= *m_begin))
            return;
        const std::int64_t bucket = BucketOf(m_period, time, index);
        const bool isFirst = bucket != m_last;
        if (!isFirst && !isOldest)
            return;
        reasons.push_back((isFirst ? "" : "oldest ") + m_reason);
        m_last = bucket;
        m_left -= m_left > 0 ? 1 : 0;
    }

private:
    static std::string NameOf(Period period) { return PeriodNames[static_cast<std::size_t>(period)]; }

    Period m_period;
    int m_left;
    std::optional<Timestamp> m_begin;
    std::string m_reason;
    std::optional<std::int64_t> m_last;
};

std::vector<PeriodRule> RulesOf(const RetentionPolicy& policy, const Timestamp& newest)
{
    std::vector<PeriodRule> rules;
    const auto add = [&](std::size_t i) {
        if (!policy.within[i].IsZero())
            rules.emplace_back(static_cast<Period>(i), policy.within[i], newest);
    };
    add(0);
    for (std::size_t i = 0; i < RetentionPolicy::PeriodCount; ++i) {
        if (policy.counts[i] != 0)
            rules.emplace_back(static_cast<Period>(i), policy.counts[i]);
    }
    for (std::size_t i = 1; i < RetentionPolicy::PeriodCount; ++i)
        add(i);
    return rules;
}

} // namespace

CalendarSpan CalendarSpan::Parse(const std::string& text)
{
    CalendarSpan span;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t end = std::min(text.find_first_not_of("0123456789", at), text.size() - 1);
        const auto* const unit = std::find_if(std::begin(SpanUnits), std::end(SpanUnits),
                                              [&](const SpanUnit& each) { return each.letter == text[end]; });
        const std::string number = text.substr(at, end - at);
        if (unit == std::end(SpanUnits) || !IsNumber(number))
            break;
        span.*unit->field = std::stoll(number);
        at = end + 1;
    }
    if (text.empty() || at != text.size())
        throw UsageError("Not a duration of years, months, days and hours such as 2y5m7d3h: '" + text + "'");
    return span;
}

std::string CalendarSpan::ToText() const
{
    std::string text;
    for (const SpanUnit& unit : SpanUnits) {
        if (this->*unit.field != 0)
            text += std::to_string(this->*unit.field) + unit.letter;
    }
    return text;
}

Timestamp CalendarSpan::Before(const Timestamp& time) const
{
    const std::chrono::year_month_day date = DateOf(time);
    const std::int64_t month = MonthOf(date) - years * 12 - months;
    if (month < 0)
        return {std::numeric_limits<std::int64_t>::min(), 0, 0};
    const std::chrono::sys_days first{std::chrono::year(static_cast<int>(month / 12)) /
                                      std::chrono::month(static_cast<unsigned int>(month % 12 + 1)) / 1};
    const std::int64_t day =
        std::int64_t{first.time_since_epoch().count()} - days - 1 + static_cast<unsigned int>(date.day());
    const auto inDay = WallTime(time) - std::chrono::floor<std::chrono::days>(WallTime(time));
    const std::int64_t wall = day * DaySeconds + inDay.count();
    std::int64_t offset = time.offset;
    // "Z" is what a time in UTC was noted with, wherever that was.
    if (offset != 0 && offset == Timestamp::Local(time.seconds, 0).offset)
        offset = Timestamp::Local(wall - Timestamp::Local(wall, 0).offset, 0).offset;
    return {wall - offset - hours * HourSeconds, time.nanoseconds, time.offset};
}

int ParseKeepCount(const std::string& text)
{
    if (text == "unlimited" || text == "-1")
        return RetentionPolicy::Unlimited;
    if (!IsNumber(text))
        throw UsageError("Not a number of snapshots to keep, nor 'unlimited': '" + text + "'");
    return std::stoi(text);
}

bool RetentionPolicy::IsEmpty() const
{
    return tags.empty() && std::all_of(counts.begin(), counts.end(), [](int count) { return count == 0; }) &&
           std::all_of(within.begin(), within.end(), [](const CalendarSpan& span) { return span.IsZero(); });
}

std::string RetentionPolicy::ToText() const
{
    std::vector<std::string> numbers, parts;
    for (std::size_t i = 0; i < PeriodCount; ++i) {
        const std::string name = i == 0 ? "latest" : PeriodNames[i];
        if (counts[i] != 0)
            numbers.push_back((counts[i] == Unlimited ? "all" : std::to_string(counts[i])) + " " + name);
    }
    if (!numbers.empty())
        parts.push_back(Joined(numbers, ", ") + " snapshots");
    for (std::size_t i = 1; i < PeriodCount; ++i) {
        if (!within[i].IsZero())
            parts.push_back(std::string(PeriodNames[i]) + " snapshots within " + within[i].ToText());
    }
    std::vector<std::string> lists;
    for (const std::vector<std::string>& list : tags)
        lists.push_back(TagsText(list));
    if (!lists.empty())
        parts.push_back("all snapshots with tags [" + Joined(lists, " ") + "]");
    if (!within[0].IsZero())
        parts.push_back("all snapshots within " + within[0].ToText() + " of the newest");
    return "keep " + Joined(parts, " and ");
}

std::vector<std::vector<std::string>>
ReasonsToKeep(const RetentionPolicy& policy, std::span<const StoredSnapshot> snapshots, const Timestamp& now)
{
    const auto newest =
        std::find_if(snapshots.begin(), snapshots.end(),
                     [&now](const StoredSnapshot& stored) { return stored.snapshot.time <= now; });
    std::vector<PeriodRule> rules =
        RulesOf(policy, newest == snapshots.end() ? Timestamp() : newest->snapshot.time);
    std::vector<std::vector<std::string>> all(snapshots.size());
    for (std::size_t i = 0; i < snapshots.size(); ++i) {
        for (const std::vector<std::string>& list : policy.tags) {
            const Repo::SnapshotFilter filter{.hosts = {}, .tags = {list}, .paths = {}};
            if (filter.Matches(snapshots[i].snapshot))
                all[i].push_back("has tags " + TagsText(list));
        }
        for (PeriodRule& rule : rules)
            rule.Apply(snapshots[i].snapshot.time, i, i + 1 == snapshots.size(), all[i]);
    }
    return all;
}

} // namespace Agent
