// A span of time, to the nanosecond.
#pragma once

#include <chrono>
#include <compare>

namespace Krt::Time {

class YDuration
{
public:
    /// A span of so many; negative ones are kept.
    static constexpr YDuration Zero() { return YDuration(std::chrono::nanoseconds(0)); }
    static constexpr YDuration Milliseconds(long long count)
    {
        return YDuration(std::chrono::milliseconds(count));
    }
    static constexpr YDuration Seconds(long long count) { return YDuration(std::chrono::seconds(count)); }

    /// The span for the standard library, and whether it is none.
    constexpr std::chrono::nanoseconds AsChrono() const { return m_span; }
    constexpr bool IsZero() const { return m_span.count() == 0; }
    /// By length.
    friend constexpr auto operator<=>(const YDuration&, const YDuration&) = default;

private:
    constexpr explicit YDuration(std::chrono::nanoseconds span) : m_span(span) {}
    std::chrono::nanoseconds m_span;
};

} // namespace Krt::Time
