// RateLimit: how many bytes a second all connections of a program together may transfer in one direction. Any
// thread.
#pragma once

#include "Krt/Thread/ThreadSafety.h"

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Agent::Http {

class RateLimit
{
public:
    using Clock = std::chrono::steady_clock;

    /// 0 for no limit.
    explicit RateLimit(std::uint64_t bytesPerSecond) : m_rate(bytesPerSecond) {}

    bool IsLimited() const { return m_rate != 0; }
    /// How many bytes a connection should transfer at once, so that others get their share: those of an
    /// eighth of a second, at least 1 KiB.
    std::size_t PortionOf(std::size_t bytes) const;
    /// Reserves a time for the transfer of these bytes, and returns when it begins. What was not used before
    /// may be used within an eighth of a second.
    Clock::time_point Reserve(std::size_t bytes, Clock::time_point now = Clock::now());

private:
    const std::uint64_t m_rate;
    Krt::Thread::AnnotatedMutex m_mutex;
    Clock::time_point m_free KRT_GUARDED_BY(m_mutex); // the end of the last reservation
};

} // namespace Agent::Http
