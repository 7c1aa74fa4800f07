// Shortened: spreads the waits of many clients over time.
#pragma once

#include <chrono>
#include <random>

namespace Agent::Http {

/// The time shortened by up to a half, at random, so that clients that began to wait at the same time do not
/// come back at the same time. Any thread.
inline std::chrono::milliseconds Shortened(std::chrono::milliseconds wait)
{
    thread_local std::minstd_rand random{std::random_device{}()};
    std::uniform_int_distribution<std::chrono::milliseconds::rep> distribution(wait.count() / 2,
                                                                               wait.count());
    return std::chrono::milliseconds(distribution(random));
}

} // namespace Agent::Http
