#include "agent/Access/Workers.h"

#include "Krt/Thread/ThreadSafety.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <thread>
#include <vector>

namespace Agent {

using Krt::Thread::AnnotatedLock;

unsigned int WorkerCount()
{
    return std::clamp(std::thread::hardware_concurrency(), 2u, 8u);
}

namespace {

// What the threads of a call of RunOnThreads share.
class SharedState
{
public:
    explicit SharedState(unsigned int threads) : m_running(threads) {}

    // Keeps the exception that is being handled, if it is the first one.
    void Fail()
    {
        const AnnotatedLock lock(m_mutex);
        if (!m_failure)
            m_failure = std::current_exception();
        m_hasFailed = true;
    }
    bool HasFailed() const { return m_hasFailed; }
    void RaiseFailure()
    {
        const AnnotatedLock lock(m_mutex);
        if (m_failure)
            std::rethrow_exception(m_failure);
    }

    // To be called at the end of each thread.
    void End()
    {
        const AnnotatedLock lock(m_mutex);
        --m_running;
        m_ended.notify_all();
    }
    // Waits until all threads have ended. Returns false if that takes longer than `time`.
    bool WaitForEnd(std::chrono::milliseconds time)
    {
        AnnotatedLock lock(m_mutex);
        return lock.WaitUntil(m_ended, std::chrono::steady_clock::now() + time, [this] {
            m_mutex.AssertHeld();
            return m_running == 0;
        });
    }

private:
    Krt::Thread::AnnotatedMutex m_mutex;
    std::condition_variable m_ended;
    std::exception_ptr m_failure KRT_GUARDED_BY(m_mutex);
    unsigned int m_running KRT_GUARDED_BY(m_mutex);
    std::atomic<bool> m_hasFailed{false};
};

} // namespace

void RunOnThreads(unsigned int count, const std::function<void(const std::function<bool()>& hasFailed)>& work,
                  const std::function<void()>& meanwhile)
{
    constexpr std::chrono::milliseconds BetweenReports{100};
    SharedState state(count);
    std::vector<std::thread> threads;
    const auto run = [&state, &work] {
        try {
            work([&state] { return state.HasFailed(); });
        } catch (...) {
            state.Fail();
        }
        state.End();
    };
    try {
        while (threads.size() < count)
            threads.emplace_back(run);
    } catch (...) {
        state.Fail();
        for (std::size_t i = threads.size(); i < count; ++i)
            state.End();
    }
    for (bool isRunning = true; isRunning;) {
        isRunning = !state.WaitForEnd(BetweenReports);
        try {
            if (!state.HasFailed())
                meanwhile();
        } catch (...) {
            state.Fail();
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    state.RaiseFailure();
}

} // namespace Agent
