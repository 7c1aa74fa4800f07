// A thread that takes and gives the levels of a read/write lock as it is told, one by one, and that can be
// seen asleep in a step. So a test puts the steps of several threads into one order.
#pragma once

#include "testing/Raises.h"

#include "Krt/Thread/YReadWriteMutex.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Testing {

class LockActor
{
public:
    explicit LockActor(const Krt::Thread::YReadWriteMutex& mutex) : m_mutex(mutex) {}
    ~LockActor()
    {
        Begin('q');
        m_thread.join();
    }
    LockActor(const LockActor&) = delete;
    LockActor& operator=(const LockActor&) = delete;

    /// Tells it a step: 'r'ead, 'w'rite, or '-' to give the last level back.
    void Begin(char order)
    {
        m_result = Asked;
        m_order = order;
        m_order.notify_one();
    }
    /// '.' for done, 'x' for refused; with `mayWait`, 'z' once the thread sleeps in it.
    char Await(bool mayWait) const
    {
        for (int asleep = 0; asleep < 5;) {
            if (const char result = m_result; result != Asked && result != Begun)
                return result;
            asleep = mayWait && m_result == Begun && Sleeps() ? asleep + 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return 'z';
    }

private:
    static constexpr char Asked = 'a', Begun = 'b';

    void Run()
    {
        m_id = gettid();
        for (char order = 0; order != 'q';) {
            m_order.wait(0);
            order = m_order.exchange(0);
            m_result = Begun;
            m_result = CatchError([&] { Do(order); }) ? 'x' : '.';
        }
        m_locks.clear();
    }
    void Do(char order)
    {
        const auto forever = Krt::Time::YDuration::Zero();
        if (order == 'r')
            m_locks.push_back(m_mutex.ReadLock(forever));
        else if (order == 'w')
            m_locks.push_back(m_mutex.WriteLock(forever));
        else if (order == '-')
            m_locks.pop_back();
    }
    bool Sleeps() const
    {
        std::ifstream file("/proc/self/task/" + std::to_string(m_id) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        return text.find(") S ") != std::string::npos;
    }

    const Krt::Thread::YReadWriteMutex& m_mutex;
    std::vector<Krt::Thread::YReadWriteMutex::YLock> m_locks;
    std::atomic<char> m_order = 0, m_result = '.';
    std::atomic<pid_t> m_id = 0;
    std::thread m_thread{[this] {
        Run();
    }};
};

} // namespace Testing
