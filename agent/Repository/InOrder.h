// Work on numbered items that threads prepare, and that the calling thread takes in order.
#pragma once

#include "Krt/Thread/ThreadSafety.h"
#include "Krt/Util/YScope.h"

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <optional>
#include <thread>
#include <vector>

namespace Agent::Repo {

/// Which of the numbered items may be prepared and taken. Item i is in slot i modulo the number of slots.
class ItemOrder
{
public:
    ItemOrder(std::size_t count, std::size_t slots) : m_count(count), m_isReady(slots) {}

    /// Waits for a free slot and returns the number of the next item to be prepared; nothing at the end.
    std::optional<std::size_t> Begin()
    {
        Krt::Thread::AnnotatedLock lock(m_mutex);
        lock.Wait(m_changed, [this] {
            m_mutex.AssertHeld();
            return m_isEnding || m_next == m_count || m_next - m_taken < m_isReady.size();
        });
        return m_isEnding || m_next == m_count ? std::nullopt : std::optional(m_next++);
    }
    /// The item that Begin returned is prepared.
    void SetReady(std::size_t number) { Set(number, true); }
    /// Waits until the item is prepared. Items are taken in their order.
    void WaitFor(std::size_t number)
    {
        Krt::Thread::AnnotatedLock lock(m_mutex);
        lock.Wait(m_changed, [this, number] {
            m_mutex.AssertHeld();
            return m_isReady[number % m_isReady.size()];
        });
    }
    /// The item was taken, and its slot is free.
    void SetTaken(std::size_t number) { Set(number, false); }
    /// Begin returns nothing from now on.
    void End()
    {
        {
            const Krt::Thread::AnnotatedLock lock(m_mutex);
            m_isEnding = true;
        }
        m_changed.notify_all();
    }

private:
    void Set(std::size_t number, bool isReady)
    {
        const Krt::Thread::AnnotatedLock lock(m_mutex);
        m_isReady[number % m_isReady.size()] = isReady;
        m_taken += isReady ? 0 : 1;
        m_changed.notify_all();
    }

    const std::size_t m_count;
    Krt::Thread::AnnotatedMutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_next KRT_GUARDED_BY(m_mutex) = 0; // to be prepared
    std::size_t m_taken KRT_GUARDED_BY(m_mutex) = 0;
    std::vector<bool> m_isReady KRT_GUARDED_BY(m_mutex); // by slot
    bool m_isEnding KRT_GUARDED_BY(m_mutex) = false;
};

/// Calls `prepare(number, result)` for each number below `count` on up to `threads` threads, and then
/// `take(number, result, failure)` on the calling thread in the order of the numbers. `result` is empty at
/// first. `failure` is what `prepare` raised, or null. There is at most one result more than there are
/// threads. What `take` raises passes through, after the threads have ended.
template <class Result, class Prepare, class Take>
void RunInOrder(std::size_t count, unsigned int threads, const Prepare& prepare, const Take& take)
{
    struct Slot
    {
        Result result;
        std::exception_ptr failure;
    };
    const std::size_t workers = std::min<std::size_t>(count, std::max(threads, 1u));
    std::vector<Slot> slots(workers + 1);
    ItemOrder order(count, slots.size());
    const auto work = [&] {
        while (const std::optional<std::size_t> number = order.Begin()) {
            Slot& slot = slots[*number % slots.size()];
            try {
                prepare(*number, slot.result);
            } catch (...) {
                slot.failure = std::current_exception();
            }
            order.SetReady(*number);
        }
    };
    std::vector<std::thread> pool;
    const Krt::Util::YScope atEnd([&] {
        order.End();
        for (std::thread& thread : pool)
            thread.join();
    });
    for (std::size_t i = 0; i < workers; ++i)
        pool.emplace_back(work);
    for (std::size_t number = 0; number < count; ++number) {
        order.WaitFor(number);
        Slot& slot = slots[number % slots.size()];
        take(number, slot.result, slot.failure);
        slot = {};
        order.SetTaken(number);
    }
}

} // namespace Agent::Repo
