// Work on numbered items that threads prepare, and that the calling thread takes in order.
#pragma once

#include "Krt/Util/YScope.h"

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace Agent::Repo {

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
        bool isReady = false;
    };
    const std::size_t workers = std::min<std::size_t>(count, std::max(threads, 1u));
    std::vector<Slot> slots(workers + 1); // item i is in slot i modulo their number
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t next = 0;
    std::size_t taken = 0;
    bool isEnding = false;
    const auto work = [&] {
        std::unique_lock guard(mutex);
        for (;;) {
            changed.wait(guard, [&] { return isEnding || next == count || next - taken < slots.size(); });
            if (isEnding || next == count)
                return;
            const std::size_t number = next++;
            Slot& slot = slots[number % slots.size()];
            guard.unlock();
            try {
                prepare(number, slot.result);
            } catch (...) {
                slot.failure = std::current_exception();
            }
            guard.lock();
            slot.isReady = true;
            changed.notify_all();
        }
    };
    std::vector<std::thread> pool;
    const Krt::Util::YScope atEnd([&] {
        {
            const std::lock_guard guard(mutex);
            isEnding = true;
        }
        changed.notify_all();
        for (std::thread& thread : pool)
            thread.join();
    });
    for (std::size_t i = 0; i < workers; ++i)
        pool.emplace_back(work);
    for (std::size_t number = 0; number < count; ++number) {
        Slot& slot = slots[number % slots.size()];
        {
            std::unique_lock guard(mutex);
            changed.wait(guard, [&] { return slot.isReady; });
        }
        take(number, slot.result, slot.failure);
        const std::lock_guard guard(mutex);
        slot = {};
        ++taken;
        changed.notify_all();
    }
}

} // namespace Agent::Repo
