// Threads that a test controls step by step, so that the steps of several threads happen in one order. A
// thread counts as asleep in a step if five checks, a millisecond apart, found it in an interruptible sleep.
// The step has no other sleeps than the wait under test, so an actor that is merely slow is found running or
// runnable.
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
    /// Runs the step of this letter on the actor's thread, and returns the letter of its result. Also called
    /// with Quit at the end.
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
    /// Returns the result of the step, Refused if it raised an error. With `mayWait`, returns Asleep once the
    /// thread sleeps in it.
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
    /// For an action: reports Done, and runs other steps within the present one until the step `last`
    /// arrives, which continues the present one.
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
    bool m_quits = false; // only used by the thread
    std::atomic<char> m_order = 0, m_result = Done;
    std::atomic<pid_t> m_id = 0;
    std::thread m_thread{[this] {
        m_id = gettid();
        DoStepsUntil(0);
    }};
};

/// A row's name, and its steps of three letters, separated by blanks: the actor, 'A' to 'C'; the order; and
/// the expected result. The order '*' awaits the result of the step in which the actor slept.
struct Scenario
{
    const char* row;
    std::string steps;
};

/// Runs the steps with three actors; calls makeAction for each actor.
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
