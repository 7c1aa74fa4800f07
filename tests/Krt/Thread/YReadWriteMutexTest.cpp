#include "Krt/Thread/YReadWriteMutex.h"

#include "testing/OnThreads.h"
#include "testing/Raises.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Krt::Thread {
namespace {

using Time::YDuration;
using Lock = YReadWriteMutex::YLock;

const YDuration Forever = YDuration::Zero();
const YDuration Short = YDuration::Milliseconds(1);

template <class Work>
void OnOtherThread(Work work)
{
    std::thread(work).join();
}

bool Takes(const YReadWriteMutex& mutex, bool write)
{
    bool taken = false;
    OnOtherThread([&] {
        taken = !Testing::CatchError(
            [&] { const Lock lock = write ? mutex.WriteLock(Short) : mutex.ReadLock(Short); });
    });
    return taken;
}

// What another thread can take now: 'W'rite, 'R'ead or nothing.
char OthersTake(const YReadWriteMutex& mutex)
{
    return Takes(mutex, true) ? 'W' : Takes(mutex, false) ? 'R' : '-';
}

Lock Take(const YReadWriteMutex& mutex, char kind)
{
    return kind == 'W' ? mutex.WriteLock(Forever) : mutex.ReadLock(Forever);
}

TEST(YReadWriteMutex, ExclusionLastsFromFirstWriteToLastLevel)
{
    const struct
    {
        const char* name;
        std::string taken;
        std::string othersTake; // before the first level, and after each
        std::string othersTakeBack;
    } rows[] = {
        {"read twice", "RR", "WRR", "WRR"},
        {"write twice", "WW", "W--", "W--"},
        {"read inside write", "WR", "W--", "W--"},
        {"write inside read", "RW", "WR-", "W--"},
        {"alternating", "RRWRWR", "WRR----", "W------"},
    };
    for (int i = 0; i < 2 * static_cast<int>(std::size(rows)); ++i) {
        const auto& row = rows[i / 2];
        const bool lastFirst = i % 2 == 0;
        const YReadWriteMutex mutex;
        std::vector<Lock> locks;
        for (const char kind : row.taken) {
            EXPECT_EQ(OthersTake(mutex), row.othersTake[locks.size()]) << row.name << locks.size();
            locks.push_back(Take(mutex, kind));
        }
        for (; !locks.empty(); locks.erase(lastFirst ? locks.end() - 1 : locks.begin()))
            EXPECT_EQ(OthersTake(mutex), row.othersTakeBack[locks.size()])
                << row.name << " back " << lastFirst << locks.size();
        EXPECT_EQ(OthersTake(mutex), 'W') << row.name;
    }
}

TEST(YReadWriteMutex, TimeOutRaisesAndLeavesNoLock)
{
    const YReadWriteMutex mutex;
    Lock writer = mutex.WriteLock(Forever);
    OnOtherThread([&] {
        EXPECT_RAISES_ON(mutex.ReadLock(Short), MessageType::Runtime, ErrorCode::LockTimeout, "ReadLock", "");
        EXPECT_RAISES_ON(mutex.WriteLock(YDuration::Milliseconds(-1)), MessageType::Runtime,
                         ErrorCode::LockTimeout, "WriteLock", "");
    });
    Lock moved = std::move(writer);
    writer.Release();
    EXPECT_EQ(OthersTake(mutex), '-');
    moved.Release();
    moved.Release();
    EXPECT_EQ(OthersTake(mutex), 'W');

    const Lock reader = mutex.ReadLock(Forever);
    OnOtherThread([&] {
        const Lock other = mutex.ReadLock(Forever);
        EXPECT_TRUE(Testing::CatchError([&] { mutex.WriteLock(Short); })) << "while another thread reads";
    });
    const Lock upgraded = mutex.WriteLock(Forever);
}

// Without limits of time a lost wake-up shows as a hang, and lost exclusion as a wrong sum.
TEST(YReadWriteMutex, MixedUseByThreadsExcludesAndWakes)
{
    constexpr int Rounds = 10000;
    const YReadWriteMutex mutex;
    long first = 0, second = 0;
    std::atomic<long> written = 0;
    const auto write = [&](const YDuration& timeout) {
        static_cast<void>(Testing::CatchError([&] {
            const Lock lock = mutex.WriteLock(timeout);
            ++first;
            const Lock nested = mutex.ReadLock(Forever);
            ++second;
            ++written;
        }));
    };
    Testing::OnThreads(4, [&](int thread) {
        unsigned int seed = static_cast<unsigned int>(thread) + 1;
        for (int round = 0; round < Rounds; ++round) {
            seed = seed * 1103515245 + 12345;
            const unsigned int choice = seed >> 16 & 15;
            if (choice < 2) {
                write(choice == 0 ? Forever : Short);
            } else {
                const Lock lock = mutex.ReadLock(Forever);
                ASSERT_EQ(first, second);
                if (choice == 2)
                    write(Forever);
                const Lock nested = mutex.ReadLock(Forever);
                ASSERT_EQ(first, second);
            }
        }
    });
    EXPECT_EQ(first, written);
    EXPECT_EQ(second, written);
    EXPECT_GE(written, 1);
}

// For the sanitizers: the last reference is released while readers unlock by their slots only.
TEST(YReadWriteMutex, DestroyedWhileReadersUnlock)
{
    for (int round = 0; round < 300; ++round) {
        std::optional<YReadWriteMutex> mutex(std::in_place);
        std::latch held(3);
        Testing::OnThreads(3, [&](int thread) {
            std::optional<Lock> lock;
            if (thread != 0)
                lock = mutex->ReadLock(Forever);
            held.arrive_and_wait();
            if (thread == 0)
                mutex.reset();
        });
    }
}

// For the address and leak checks: the last of lock and thread frees the records.
TEST(YReadWriteMutex, LocksAndThreadsEndInAnyOrder)
{
    const YReadWriteMutex lasting;
    for (int thread = 0; thread < 50; ++thread)
        OnOtherThread([&] {
            const Lock lock = lasting.ReadLock(Forever);
            for (int i = 0; i < 100; ++i) { // mostly at one address
                const YReadWriteMutex brief;
                const Lock reader = brief.ReadLock(Forever);
                const Lock writer = brief.WriteLock(Forever);
            }
        });
    std::vector<YReadWriteMutex> many;
    for (int i = 0; i < 300; ++i)
        many.push_back(YReadWriteMutex());
    std::vector<Lock> locks;
    for (const YReadWriteMutex& mutex : many)
        locks.push_back(mutex.ReadLock(Forever));
    EXPECT_EQ(OthersTake(many.front()), 'R');
    locks.clear();
    for (const YReadWriteMutex& mutex : many)
        const Lock lock = mutex.WriteLock(Forever);
    EXPECT_EQ(OthersTake(lasting), 'W');
}

TEST(YReadWriteMutex, GivenUpLevelsAreRestored)
{
    for (const std::string taken : {"RR", "WW", "RW"}) {
        std::optional<YReadWriteMutex> mutex(std::in_place);
        Lock outer = Take(*mutex, taken[0]);
        {
            Lock inner = Take(*mutex, taken[1]);
            inner.GiveUpAllLevels();
            EXPECT_EQ(OthersTake(*mutex), 'W') << taken;
        }
        EXPECT_EQ(OthersTake(*mutex), taken[1] == 'W' ? '-' : 'R') << taken;
        outer.Release();
        EXPECT_EQ(OthersTake(*mutex), 'W') << taken;
        outer = Take(*mutex, taken[1]);
        outer.GiveUpAllLevels();
        mutex.reset(); // the lock keeps the state that it restores
    }
}

} // namespace
} // namespace Krt::Thread
