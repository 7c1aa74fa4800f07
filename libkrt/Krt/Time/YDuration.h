#pragma once

#include <chrono>
#include <compare>

namespace Krt::Time {

/// A span of time in nanoseconds, which may be negative.
class YDuration
{
public:
    /// The empty span.
    static constexpr YDuration Zero() { return YDuration(std::chrono::nanoseconds(0)); }
    /// A span of `count` milliseconds.
    static constexpr YDuration Milliseconds(long long count)
    {
        return YDuration(std::chrono::milliseconds(count));
    }
    /// A span of `count` seconds.
    static constexpr YDuration Seconds(long long count) { return YDuration(std::chrono::seconds(count)); }

    /// The span as a type of the standard library.
    constexpr std::chrono::nanoseconds AsChrono() const { return m_span; }
    /// Returns true if the span is empty.
    constexpr bool IsZero() const { return m_span.count() == 0; }
    /// Compares by length.
    friend constexpr auto operator<=>(const YDuration&, const YDuration&) = default;

private:
    constexpr explicit YDuration(std::chrono::nanoseconds span) : m_span(span) {}
    std::chrono::nanoseconds m_span;
};

} // namespace Krt::Time
