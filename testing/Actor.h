// Threads that do what they are told, step by step, and that can be seen asleep in a step. So a test puts the
// steps of several threads into one order.
#pragma once

#include "testing/Raises.h"

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Testing {

class Actor
{
public:
    /// Does the step of this letter, on the actor's thread, and tells what came of it by another. Comes with
    /// Quit at the end, too.
    using Action = std::function<char(Actor& self, char order)>;
    static constexpr char Done = '.', Refused = 'x', Asleep = 'z', Quit = 'q';

    explicit Actor(Action action) : m_action(std::move(action)) {}
    ~Actor()
    {
        Begin(Quit);
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
    /// What came of the step, Refused if it raised an error. With `mayWait`, Asleep once the thread sleeps in
    /// it.
    char Await(bool mayWait) const
    {
        for (int asleep = 0; asleep < 5;) {
            if (const char result = m_result; result != Asked && result != Begun)
                return result;
            asleep = mayWait && m_result == Begun && Sleeps() ? asleep + 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return Asleep;
    }
    /// For an action: tells that its step is done so far, and does others within it until this one comes,
    /// with which the step goes on.
    void StayUntil(char last)
    {
        m_result = Done;
        DoStepsUntil(last);
    }

private:
    static constexpr char Asked = 'a', Begun = 'b';

    void DoStepsUntil(char last)
    {
        while (!m_quits) {
            m_order.wait(0);
            const char order = m_order.exchange(0);
            m_result = Begun;
            m_quits = order == Quit;
            if (order == last)
                return;
            char result = Refused;
            CatchError([&] { result = m_action(*this, order); });
            m_result = result;
        }
    }
    bool Sleeps() const
    {
        std::ifstream file("/proc/self/task/" + std::to_string(m_id) + "/stat");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        return text.find(") S ") != std::string::npos;
    }

    const Action m_action;
    bool m_quits = false; // the thread's own
    std::atomic<char> m_order = 0, m_result = Done;
    std::atomic<pid_t> m_id = 0;
    std::thread m_thread{[this] {
        m_id = gettid();
        DoStepsUntil(0);
    }};
};

/// A row's name, and its steps of three letters, parted by blanks: the actor, 'A' to 'C'; the order; and what
/// must come of it. With '*' for the order, what comes of the step in which the actor slept.
struct Scenario
{
    const char* row;
    std::string steps;
};

/// With three actors, whose actions are made one by one.
inline void Play(const Scenario& scenario, const std::function<Actor::Action()>& makeAction)
{
    const auto& [row, steps] = scenario;
    std::vector<std::unique_ptr<Actor>> actors;
    for (int i = 0; i < 3; ++i)
        actors.push_back(std::make_unique<Actor>(makeAction()));
    for (std::size_t at = 0; at < steps.size(); at += 4) {
        Actor& actor = *actors[static_cast<std::size_t>(steps[at] - 'A')];
        const char order = steps[at + 1], end = steps[at + 2];
        if (order != '*')
            actor.Begin(order);
        ASSERT_EQ(actor.Await(end == Actor::Asleep), end) << row << ", step " << at / 4;
    }
}

} // namespace Testing
