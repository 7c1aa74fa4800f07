// Timestamp: an instant with the zone in which it was noted, as RFC 3339 writes it:
// "2024-02-29T12:34:56.789+05:30". Calendar times are those of the proleptic Gregorian calendar.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Agent::Repo {

struct Timestamp
{
    /// Of 0001-01-01T00:00:00Z, which represents an unknown time.
    static constexpr std::int64_t UnknownSeconds = -62135596800;

    std::int64_t seconds = UnknownSeconds; ///< since 1970-01-01T00:00:00Z, in the years 0 to 9999 of the zone
    std::uint32_t nanoseconds = 0;         ///< to be added, below 1,000,000,000
    std::int32_t offset = 0;               ///< seconds by which the zone is ahead of UTC, whole minutes

    /// An instant in the local zone of this process at that instant. An offset that is not in whole minutes
    /// is replaced by UTC. A year outside of 0 to 9999 becomes the nearest instant inside, in UTC.
    static Timestamp Local(std::int64_t seconds, std::uint32_t nanoseconds);
    /// The present, in the local zone.
    static Timestamp Now();
    /// Reads a time; nothing for any other text. The zone is required. Digits of the fraction after the ninth
    /// are dropped.
    static std::optional<Timestamp> Parse(std::string_view text);

    /// Appends the text: "Z" for the offset 0, a fraction without trailing zeros.
    void AppendTo(std::string& out) const;
    std::string ToText() const;

    /// The instants are compared, not the zones.
    friend std::strong_ordering operator<=>(const Timestamp& a, const Timestamp& b)
    {
        const auto bySeconds = a.seconds <=> b.seconds;
        return bySeconds != 0 ? bySeconds : a.nanoseconds <=> b.nanoseconds;
    }
    friend bool operator==(const Timestamp& a, const Timestamp& b) { return (a <=> b) == 0; }
};

} // namespace Agent::Repo
