#include "agent/Access/Workers.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace Agent {

unsigned int WorkerCount()
{
    return std::clamp(std::thread::hardware_concurrency(), 2u, 8u);
}

void RunOnThreads(unsigned int count, const std::function<void(const std::function<bool()>& hasFailed)>& work,
                  const std::function<void()>& meanwhile)
{
    constexpr std::chrono::milliseconds BetweenReports{100};
    std::mutex mutex;
    std::condition_variable ended;
    std::exception_ptr failure;
    std::atomic<bool> isFailed{false};
    unsigned int running = count;
    const auto fail = [&] {
        const std::lock_guard guard(mutex);
        if (!failure)
            failure = std::current_exception();
        isFailed = true;
    };
    const auto hasFailed = [&] {
        return isFailed.load();
    };
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < count; ++i)
        threads.emplace_back([&] {
            try {
                work(hasFailed);
            } catch (...) {
                fail();
            }
            const std::lock_guard guard(mutex);
            --running;
            ended.notify_all();
        });
    for (bool isRunning = true; isRunning;) {
        {
            std::unique_lock guard(mutex);
            isRunning = !ended.wait_for(guard, BetweenReports, [&] { return running == 0; });
        }
        try {
            if (!isFailed)
                meanwhile();
        } catch (...) {
            fail();
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    if (failure)
        std::rethrow_exception(failure);
}

} // namespace Agent
