#include "Krt/Signal/YSignal.h"

#include "testing/OnThreads.h"

#include "Krt/String/YString.h"
#include "Krt/Thread/Thread.h"
#include "Krt/Thread/YThreadBase.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Krt::Signal {
namespace {

using Event = YSignal<void()>;

// Slots that write their letter when they are called.
class YSignalTest : public testing::Test
{
protected:
    YSlot Letter(char letter)
    {
        return m_event.Connect([this, letter] { m_called += letter; });
    }
    std::string Fire()
    {
        m_called.clear();
        m_event();
        return m_called;
    }

    Event m_event;
    std::string m_called;
};

TEST_F(YSignalTest, SlotsAreCalledInOrder)
{
    EXPECT_EQ(Fire(), "");
    YSlot a = Letter('a');
    YSlot b = Letter('b');
    EXPECT_EQ(Fire(), "ab");
    a = Letter('c');
    EXPECT_EQ(Fire(), "bc");
    YSlot moved = std::move(b);
    b.Disconnect();
    EXPECT_EQ(Fire(), "bc");
    moved.Disconnect();
    EXPECT_EQ(Fire(), "c");

    YSlot outliving; // the signal
    YSignal<void(YString)> signal;
    const auto append = [this](YString text) { // each call has its own
        m_called += text.Bytes();
        text += "!";
    };
    outliving = signal.Connect(append);
    YSlot other = signal.Connect(append);
    signal("x");
    EXPECT_EQ(m_called, "cxx");
}

TEST_F(YSignalTest, SlotsChangeSignalDuringCall)
{
    YSlot gone;
    YSlot first = Letter('a');
    YSlot self = m_event.Connect([&] {
        gone.Disconnect();
        self.Disconnect(); // does not free the function and its captures while it runs
        m_called += 'x';
    });
    gone = Letter('g');
    YSlot last = Letter('b');
    EXPECT_EQ(Fire(), "axb");
    EXPECT_EQ(Fire(), "ab");

    std::vector<YSlot> added;
    YSlot connecting = m_event.Connect([&] { added.push_back(Letter('n')); });
    EXPECT_EQ(Fire(), "ab") << "a new slot is called next time";
    EXPECT_EQ(Fire(), "abn");

    YSlot nested = m_event.Connect([&] {
        if (m_called.size() < 8)
            m_event();
        m_called += '.';
    });
    connecting.Disconnect();
    EXPECT_EQ(Fire(), "abnnabnn..");
}

TEST_F(YSignalTest, SlotRaisesAndSignalStaysUsable)
{
    std::function<void()> failure = [] {
        throw YSlotExpired();
    };
    YSlot a = Letter('a');
    YSlot failing = m_event.Connect([&] { failure(); });
    YSlot b = Letter('b');
    EXPECT_EQ(Fire(), "ab");
    failure = [] {
        throw std::runtime_error("slot");
    };
    EXPECT_THROW(Fire(), std::runtime_error);
    EXPECT_EQ(m_called, "a");
    // The lock is free and the call no longer counted, otherwise this would hang.
    std::thread([&] { failing.Disconnect(); }).join();
    EXPECT_EQ(Fire(), "ab");
}

TEST_F(YSignalTest, DisconnectWaitsForCallOnOtherThread)
{
    Event event;
    std::latch inside(2), fired(1);
    std::atomic<bool> finished = false;
    YSlot slot = event.Connect([&] {
        inside.arrive_and_wait();
        fired.wait();
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        finished = true;
    });
    std::thread firing([&] { event(); });
    inside.arrive_and_wait();
    Event().operator()(); // the lock is free meanwhile
    fired.count_down();
    slot.Disconnect();
    EXPECT_TRUE(finished);
    firing.join();
}

// A slot that runs on one thread, and the firing on another that disconnects it.
TEST_F(YSignalTest, SlotDisconnectsSlotRunningOnOtherThread)
{
    for (const bool itself : {true, false}) {
        Event event;
        const auto firing = std::this_thread::get_id();
        std::latch inside(2);
        std::atomic<bool> disconnecting = false, finished = false;
        std::atomic<int> calls = 0;
        YSlot first, second;
        const auto disconnect = [&](YSlot& slot) {
            disconnecting = true;
            disconnecting.notify_one();
            slot.Disconnect(); // waits only for the other thread
            EXPECT_TRUE(finished);
        };
        const auto run = [&] {
            ++calls;
            if (std::this_thread::get_id() == firing) {
                disconnect(second);
                return;
            }
            inside.arrive_and_wait();
            disconnecting.wait(false);
            std::this_thread::yield();
            finished = true;
        };
        first = event.Connect([&] {
            if (!itself && std::this_thread::get_id() == firing)
                disconnect(second);
        });
        second = event.Connect(run);
        std::thread other([&] { event(); });
        inside.arrive_and_wait();
        event();
        other.join();
        EXPECT_EQ(calls, itself ? 2 : 1);
        event();
        EXPECT_EQ(calls, itself ? 2 : 1);
    }
}

TEST_F(YSignalTest, OwnerDestroyedOnOtherThreadDuringCall)
{
    Event event;
    // The last reference may go with the call; another thread must be able to fire then.
    const auto make = [] {
        return boost::shared_ptr<int>(new int(0), [](int* owner) {
            delete owner;
            std::thread([] { Event().operator()(); }).join();
        });
    };
    boost::shared_ptr<int> early = make(), late = make();
    const auto drop = [](boost::shared_ptr<int>& owner) {
        std::thread([&] { owner.reset(); }).join();
    };
    std::string called;
    YSlot first = event.Connect([&] { drop(early); });
    YSlot owned = event.Connect([&] { called += 'e'; }, early);
    YSlot dropping = event.Connect(
        [&, watch = boost::weak_ptr<int>(late)] {
            drop(late);
            called += watch.expired() ? '-' : '+';
        },
        late);
    YSlot last =
        event.Connect([&, watch = boost::weak_ptr<int>(late)] { called += watch.expired() ? '-' : '+'; });
    event();
    EXPECT_EQ(called, "+-");
}

TEST_F(YSignalTest, CancelRequestReachesScopeOfCall)
{
    Thread::YThreadBase thread(
        [] {
            Event event;
            Thread::YCancellationScope* const scope = event.AllocateCancellationScope();
            Thread::GetThread()->RequestCancel();
            EXPECT_TRUE(scope->IsCancelled());
            event.ReleaseCancellationScope(scope);
        },
        "");
    thread.Join();
}

// For the thread checker: firings, connections and disconnections at once.
TEST_F(YSignalTest, ThreadsFireConnectAndDisconnect)
{
    Event event;
    std::atomic<long> calls = 0;
    YSlot lasting = event.Connect([&] { ++calls; });
    Testing::OnThreads(3, [&](int) {
        for (int i = 0; i < 300; ++i) {
            auto target = std::make_unique<std::atomic<long>>(0); // slots run on several threads at once
            YSlot slot = event.Connect([data = target.get()] { *data = 1; });
            event();
            slot.Disconnect();
            target.reset(); // the function is not called any more
        }
    });
    EXPECT_EQ(calls, 900);
}

} // namespace
} // namespace Krt::Signal
