#pragma once

#include "Krt/Thread/Thread.h"

#include <atomic>

namespace Krt::Thread {

/// A recursive spin lock for lazily computed values: three atomics inside the object that they guard. It
/// has no queue and no time limit, so it suits sections that only compute a string.
class SpinLock
{
public:
    /// Acquires the lock without a time limit; on the thread that holds it, increments the recursion count.
    void Enter() noexcept
    {
        const unsigned long long me = GetThreadId();
        if (m_lockOwner.load(std::memory_order_relaxed) != me) {
            while (m_lockFlag.exchange(1, std::memory_order_acquire) != 0)
                Yield();
            m_lockOwner.store(me, std::memory_order_relaxed);
        }
        // The owner alone writes the count, so that no locked instruction is needed.
        m_lockCount.store(m_lockCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    /// Decrements the recursion count and releases the lock at 0. The owner is cleared before the flag is
    /// released, so that only its own thread ever reads its ID here.
    void Leave() noexcept
    {
        const unsigned int count = m_lockCount.load(std::memory_order_relaxed) - 1;
        m_lockCount.store(count, std::memory_order_relaxed);
        if (count == 0) {
            m_lockOwner.store(Free, std::memory_order_relaxed);
            m_lockFlag.store(0, std::memory_order_release);
        }
    }

private:
    static constexpr unsigned long long Free = 0xFFFFFFFFFFFFFFFF;

    std::atomic<unsigned char> m_lockFlag{0};
    std::atomic<unsigned long long> m_lockOwner{Free};
    std::atomic<unsigned int> m_lockCount{0};
};

/// Holds a SpinLock for a scope.
class SpinGuard
{
public:
    /// Acquires `lock` until the end of the scope.
    explicit SpinGuard(SpinLock& lock) noexcept : m_lock(lock) { m_lock.Enter(); }
    ~SpinGuard() { m_lock.Leave(); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    SpinLock& m_lock;
};

} // namespace Krt::Thread
