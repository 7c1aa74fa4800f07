// WorkList: items that several threads take, where the work on one may add further ones.
#pragma once

#include "agent/Run/Interrupt.h"

#include "Krt/Thread/ThreadSafety.h"
#include "Krt/Util/YScope.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <vector>

namespace Agent {

/// Safe in every thread.
template <class Item>
class WorkList
{
public:
    void Add(const Item& item)
    {
        const Krt::Thread::AnnotatedLock lock(m_mutex);
        m_waiting.push_back(item);
        m_changed.notify_one();
    }

    /// Calls `work` with one item after the other, until all are done in every thread, or a thread has
    /// failed. Raises YError if the command is interrupted, and what `work` raises. For the work of
    /// RunOnThreads.
    template <class Work>
    void Process(const std::function<bool()>& hasFailed, const Work& work)
    {
        for (Item item; Take(item, hasFailed);) {
            const Krt::Util::YScope atEnd([this] { Finish(); });
            RaiseIfInterrupted();
            work(item);
        }
    }

private:
    bool Take(Item& item, const std::function<bool()>& hasFailed)
    {
        constexpr std::chrono::milliseconds BetweenLooks{100}; // a failed thread does not notify
        const auto hasAnswer = [&] {
            m_mutex.AssertHeld();
            return !m_waiting.empty() || m_active == 0 || hasFailed();
        };
        Krt::Thread::AnnotatedLock lock(m_mutex);
        while (!lock.WaitUntil(m_changed, std::chrono::steady_clock::now() + BetweenLooks, hasAnswer)) {
        }
        if (m_waiting.empty() || hasFailed())
            return false;
        item = m_waiting.back();
        m_waiting.pop_back();
        ++m_active;
        return true;
    }

    void Finish()
    {
        const Krt::Thread::AnnotatedLock lock(m_mutex);
        if (--m_active == 0)
            m_changed.notify_all();
    }

    Krt::Thread::AnnotatedMutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Item> m_waiting KRT_GUARDED_BY(m_mutex); // the last is next, so that the list stays short
    unsigned int m_active KRT_GUARDED_BY(m_mutex) = 0;   // items that are being worked on
};

} // namespace Agent
