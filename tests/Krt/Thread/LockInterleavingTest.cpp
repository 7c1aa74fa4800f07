// The read/write lock's corners, each in one order of events: a step is over, or its thread is seen asleep in
// it, before the next one begins.
#include "Krt/Thread/YReadWriteMutex.h"

#include "testing/Raises.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Krt::Thread {
namespace {

// A thread that takes and gives levels as it is told, one by one.
class Actor
{
public:
    explicit Actor(const YReadWriteMutex& mutex) : m_mutex(mutex) {}
    ~Actor()
    {
        Begin('q');
        m_thread.join();
    }
    Actor(const Actor&) = delete;
    Actor& operator=(const Actor&) = delete;

    void Begin(char order)
    {
        m_result = Asked;
        m_order = order;
        m_order.notify_one();
    }
    // '.' for done, 'x' for refused; with `mayWait`, 'z' once the thread sleeps in it.
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
            m_result = Testing::CatchError([&] { Do(order); }) ? 'x' : '.';
        }
        m_locks.clear();
    }
    void Do(char order)
    {
        const auto forever = Time::YDuration::Zero();
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

    const YReadWriteMutex& m_mutex;
    std::vector<YReadWriteMutex::YLock> m_locks;
    std::atomic<char> m_order = 0, m_result = '.';
    std::atomic<pid_t> m_id = 0;
    std::thread m_thread{[this] {
        Run();
    }};
};

// Steps of three letters: the thread; 'r'ead, 'w'rite or '-' for giving the last level back; and what comes
// of it: done (.), refused (x), or asleep (z), and then "A*." says when the step of A has been done.
TEST(LockInterleaving, EachStepEndsAsItMust)
{
    const struct
    {
        const char* name;
        std::string steps;
    } rows[] = {
        {"reader nests while a writer waits", "Ar. Bwz Ar. A-. A-. B*. B-."},
        {"reader upgrades past a waiting writer", "Ar. Bwz Aw. A-. A-. B*. B-."},
        {"newcomer isn't held back for ever", "Ar. Bwz Cr. C-. A-. B*. B-."},
        {"newcomer nests beside the waiting writer", "Ar. Bwz Cr. Cr. A-. C-. C-. B*. B-."},
        {"second upgrader is refused, first one served", "Ar. Br. Awz Bwx B-. A*. A-. A-."},
        {"second upgrader may still nest", "Ar. Br. Awz Br. B-. B-. A*. A-. A-."},
        {"upgrade can be had again", "Ar. Br. Awz Bwx B-. A*. Brz A-. B*. A-. Bw. B-. B-."},
        {"writer reads on while others wait", "Aw. Brz Ar. Aw. A-. A-. A-. B*. B-."},
        {"upgraded writer leaves its read level", "Ar. Aw. Brz A-. B*. Bwz A-. B*. B-. B-."},
        {"writers take turns", "Aw. Bwz A-. B*. Awz B-. A*. A-."},
        {"all waiting readers come in", "Aw. Brz Crz A-. B*. C*. Awz B-. C-. A*. A-."},
    };
    for (const auto& row : rows) {
        const YReadWriteMutex mutex;
        std::unique_ptr<Actor> actors[3];
        for (auto& actor : actors)
            actor = std::make_unique<Actor>(mutex);
        for (std::size_t at = 0; at < row.steps.size(); at += 4) {
            Actor& actor = *actors[row.steps[at] - 'A'];
            const char order = row.steps[at + 1], end = row.steps[at + 2];
            if (order != '*')
                actor.Begin(order);
            ASSERT_EQ(actor.Await(end == 'z'), end) << row.name << ", step " << at / 4;
        }
    }
}

} // namespace
} // namespace Krt::Thread
