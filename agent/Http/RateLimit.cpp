#include "agent/Http/RateLimit.h"

#include <algorithm>

namespace Agent::Http {

namespace {

constexpr std::chrono::milliseconds Burst{125};
constexpr std::uint64_t PortionsPerSecond = 8;
constexpr std::uint64_t SmallestPortion = 1 << 10; // bytes

} // namespace

std::size_t RateLimit::PortionOf(std::size_t bytes) const
{
    if (!IsLimited())
        return bytes;
    return static_cast<std::size_t>(
        std::min<std::uint64_t>(bytes, std::max(SmallestPortion, m_rate / PortionsPerSecond)));
}

RateLimit::Clock::time_point RateLimit::Reserve(std::size_t bytes, Clock::time_point now)
{
    if (!IsLimited())
        return now;
    const std::chrono::duration<double> time(static_cast<double>(bytes) / static_cast<double>(m_rate));
    const Krt::Thread::AnnotatedLock lock(m_mutex);
    const Clock::time_point begin = std::max(m_free, now - Burst);
    m_free = begin + std::chrono::duration_cast<Clock::duration>(time);
    return begin;
}

} // namespace Agent::Http
