#include "Krt/Signal/YSignal.h"

#include "Krt/String/YString.h"
#include "Krt/Thread/YThreadBase.h"

#include "testing/Raises.h"

#include <gtest/gtest.h>

#include <atomic>
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

TEST_F(YSignalTest, CallsConnectedSlotsInOrder)
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
}

TEST_F(YSignalTest, SlotMayDisconnectItself)
{
    YSlot first = Letter('a');
    YSlot self = m_event.Connect([&] {
        self.Disconnect(); // frees neither the function nor what it holds while it runs
        m_called += 'x';
    });
    YSlot last = Letter('b');
    EXPECT_EQ(Fire(), "axb");
    EXPECT_EQ(Fire(), "ab");
}

TEST_F(YSignalTest, SlotConnectedDuringAFiringWaitsForTheNext)
{
    std::vector<YSlot> added;
    YSlot connecting = m_event.Connect([&] { added.push_back(Letter('n')); });
    EXPECT_EQ(Fire(), "");
    EXPECT_EQ(Fire(), "n");
}

TEST_F(YSignalTest, SlotThatGoesBetweenSnapshotAndCallIsSkipped)
{
    auto owner = boost::make_shared<int>(0);
    YSlot owned, plain;
    YSlot first = m_event.Connect([&] {
        owner.reset();
        plain.Disconnect();
    });
    owned = m_event.Connect([&] { m_called += 'o'; }, owner);
    plain = Letter('p');
    YSlot last = Letter('z');
    EXPECT_EQ(Fire(), "z");
    EXPECT_EQ(Fire(), "z");
}

TEST_F(YSignalTest, OwnerLivesUntilTheCallIsOver)
{
    auto owner = boost::make_shared<int>(7);
    const boost::weak_ptr<int> watch = owner;
    YSlot slot = m_event.Connect(
        [&] {
            owner.reset();
            m_called += watch.expired() ? '-' : '+';
        },
        owner);
    YSlot sameOwner = m_event.Connect([&] { m_called += 's'; }, owner);
    YSlot last = m_event.Connect([&] { m_called += watch.expired() ? '-' : '+'; });
    EXPECT_EQ(Fire(), "+-");
    EXPECT_TRUE(watch.expired());
}

TEST_F(YSignalTest, SlotMayFireAgain)
{
    YSlot nested = m_event.Connect([&] {
        m_called += '.';
        if (m_called.size() < 3)
            m_event();
    });
    EXPECT_EQ(Fire(), "...");
}

TEST_F(YSignalTest, FailurePassesThroughAndLeavesTheSignalUsable)
{
    enum
    {
        None,
        Expired,
        Foreign,
        Empty
    } failure = None;
    YSlot a = Letter('a');
    YSlot failing = m_event.Connect([&] {
        if (failure == Expired)
            throw YSlotExpired();
        if (failure == Foreign)
            throw std::runtime_error("slot");
        if (failure == Empty)
            CallFunction(boost::function<void()>());
    });
    YSlot b = Letter('b');
    failure = Expired;
    EXPECT_EQ(Fire(), "ab");
    failure = Foreign;
    EXPECT_THROW(Fire(), std::runtime_error);
    EXPECT_EQ(m_called, "a");
    failure = Empty;
    EXPECT_TRUE(Testing::CatchError([&] { Fire(); }));
    // The lock is free and the slot counted out, else this would wait for ever.
    std::thread([&] { failing.Disconnect(); }).join();
    EXPECT_EQ(Fire(), "ab");
}

TEST(YSignal, EachSlotHasItsOwnCopyOfTheArguments)
{
    YSignal<void(YString)> signal;
    std::string seen;
    const auto append = [&](YString text) {
        seen += text.Bytes();
        text += "!";
    };
    YSlot a = signal.Connect(append);
    YSlot b = signal.Connect(append);
    signal("x");
    EXPECT_EQ(seen, "xx");
}

TEST(YSignal, ConnectionOutlivesItsSignal)
{
    YSlot slot;
    {
        Event event;
        slot = event.Connect([] {});
    }
    slot.Disconnect();
}

TEST(YSignal, DisconnectionWaitsForAnotherThreadsCall)
{
    Event event;
    std::latch inside(2);
    std::atomic<bool> finished = false;
    YSlot slot = event.Connect([&] {
        inside.arrive_and_wait();
        for (int i = 0; i < 1000; ++i)
            std::this_thread::yield();
        finished = true;
    });
    std::thread firing([&] { event(); });
    inside.arrive_and_wait();
    Event().operator()(); // the lock is free meanwhile
    slot.Disconnect();
    EXPECT_TRUE(finished);
    firing.join();
}

TEST(YSignal, RequestToCancelReachesTheFiringsScope)
{
    Event event;
    std::latch up(2), asked(2);
    Thread::YThreadBase thread(
        [&] {
            Thread::YCancellationScope* const scope = event.AllocateCancellationScope();
            up.arrive_and_wait();
            asked.arrive_and_wait();
            EXPECT_TRUE(scope->IsCancelled());
            event.ReleaseCancellationScope(scope);
        },
        "");
    up.arrive_and_wait();
    thread.RequestCancel();
    asked.arrive_and_wait();
}

// For the thread checker: firings, connections and disconnections at once.
TEST(YSignal, ManyThreadsFireConnectAndDisconnect)
{
    Event event;
    std::atomic<long> calls = 0;
    YSlot lasting = event.Connect([&] { ++calls; });
    const auto work = [&] {
        for (int i = 0; i < 300; ++i) {
            auto target = std::make_unique<std::atomic<long>>(0); // slots run on several threads at once
            YSlot slot = event.Connect([data = target.get()] { *data = 1; });
            event();
            slot.Disconnect();
            target.reset(); // nobody calls the function any more
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back(work);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(calls, 900);
}

} // namespace
} // namespace Krt::Signal
