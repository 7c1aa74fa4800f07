// Retention: which snapshots a policy keeps, and why. All is computed from the arguments and the local zone.
#pragma once

#include "agent/Repository/Snapshot.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace Agent {

/// A length of time by the calendar.
struct CalendarSpan
{
    std::int64_t years = 0;
    std::int64_t months = 0;
    std::int64_t days = 0;
    std::int64_t hours = 0;

    /// Reads a text such as "2y5m7d3h". Of a unit that is there twice, the last number counts. Raises
    /// UsageError for other text.
    static CalendarSpan Parse(const std::string& text);
    std::string ToText() const;
    bool IsZero() const { return *this == CalendarSpan(); }
    /// The instant that is earlier by this. If the month does not have that day, it continues in the next
    /// one: a month before 31 March is 2 or 3 March. Except for the hours, the clock time remains across a
    /// change of daylight saving time if the instant was noted in the local zone.
    Repo::Timestamp Before(const Repo::Timestamp& time) const;

    friend bool operator==(const CalendarSpan&, const CalendarSpan&) = default;
};

/// The period of the calendar of which a rule keeps the newest snapshot, by the clock of the zone in which
/// the time of the snapshot was noted.
enum class Period
{
    None, ///< no period: a rule keeps each snapshot
    Hour,
    Day,
    Week, ///< of ISO 8601: from Monday on
    Month,
    Year
};

/// A snapshot stays if one of the rules keeps it.
struct RetentionPolicy
{
    static constexpr int Unlimited = -1;
    static constexpr std::size_t PeriodCount = 6;

    /// By Period: how many of the newest snapshots are kept, one for each period.
    std::array<int, PeriodCount> counts{};
    /// By Period: how long before the newest snapshot one is kept for each period. Snapshots with a time in
    /// the future are not the newest in this sense.
    std::array<CalendarSpan, PeriodCount> within;
    /// Snapshots with all tags of one of these lists are kept; an empty list: those without tags.
    std::vector<std::vector<std::string>> tags;

    /// Returns true if it has no rule, so that it keeps nothing.
    bool IsEmpty() const;
    /// "keep 3 latest, 7 daily snapshots". The policy has a rule.
    std::string ToText() const;
};

/// Returns the number that the text is, or RetentionPolicy::Unlimited for "unlimited" and "-1". Raises
/// UsageError for other text.
int ParseKeepCount(const std::string& text);

/// Why a policy keeps each of the snapshots, as in "daily snapshot"; no reason for one that goes. The
/// snapshots are sorted from the newest to the oldest. A rule of a period that has kept fewer than its
/// number of snapshots also keeps the oldest one.
std::vector<std::vector<std::string>> ReasonsToKeep(const RetentionPolicy& policy,
                                                    std::span<const Repo::StoredSnapshot> snapshots,
                                                    const Repo::Timestamp& now);

} // namespace Agent
