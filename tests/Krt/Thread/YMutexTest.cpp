#include "Krt/Thread/YMutex.h"

#include "testing/OnThreads.h"

#include "Krt/Signal/SlotBase.h"
#include "Krt/Thread/SpinLock.h"

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace Krt::Thread {
namespace {

TEST(YMutex, LastLevelUnlocks)
{
    const auto internal = boost::make_shared<YMutexInternal>(0);
    const YMutex mutex(internal);
    YMutex::YLock outer = mutex.Lock();
    {
        YMutex::YLock inner = mutex.Lock();
        EXPECT_EQ(internal->GetLockCount(), 2u);
        YMutex::YLock taker = std::move(inner);
        inner = YMutex::YLock();
        EXPECT_EQ(internal->GetLockCount(), 2u) << "the source of a move gives nothing back";
        taker = mutex.Lock();
        EXPECT_EQ(internal->GetLockCount(), 2u) << "an assignment releases the lock that it replaces";
        std::thread([&] { EXPECT_FALSE(internal->IsLockedByMe()); }).join();
    }
    EXPECT_TRUE(internal->IsLockedByMe());
    outer = YMutex::YLock();
    EXPECT_EQ(internal->GetLockCount(), 0u);
    EXPECT_FALSE(internal->IsLockedByMe());
}

TEST(YMutex, GivenUpLevelsAreRestored)
{
    for (const unsigned int outerLevels : {0u, 1u, 3u}) {
        const auto internal = boost::make_shared<YMutexInternal>(0);
        const YMutex mutex(internal);
        std::vector<YMutex::YLock> outer;
        for (unsigned int level = 0; level < outerLevels; ++level)
            outer.push_back(mutex.Lock());
        {
            YMutex::YLock lock = mutex.Lock();
            lock.GiveUpAllLevels();
            EXPECT_EQ(internal->GetLockCount(), 0u);
            std::thread([&] { const YMutex::YLock other = mutex.Lock(); }).join();
        }
        EXPECT_EQ(internal->GetLockCount(), outerLevels);
        EXPECT_EQ(internal->IsLockedByMe(), outerLevels != 0);
    }
}

TEST(YMutex, LockWithoutMutexIsEmpty)
{
    YMutex::YLock lock = YMutex(boost::shared_ptr<YMutexInternal>()).Lock(); // locks nothing
    lock.GiveUpAllLevels();
    YMutex::YLock other = std::move(lock);
    other = YMutex().Lock();
}

TEST(YMutexDeathTest, MutexFailureAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Destroyed : YMutexInternalBase
    {
        Destroyed() { pthread_mutex_destroy(&m_mutex); }
    };
    EXPECT_DEATH(Destroyed().Lock(),
                 "Abort due to required check: '!\\(error = pthread_mutex_lock\\(&m_mutex\\)\\)' "
                 "Mutex lock error 22");
    const auto unlockThatOfSignalsOnWrongThread = [] {
        YMutex::YLock lock = Signal::Context::GetMutex();
        std::thread([&] { lock = YMutex::YLock(); }).join();
    };
    EXPECT_DEATH(unlockThatOfSignalsOnWrongThread(), "Mutex unlock error 1");
    EXPECT_DEATH(YMutexInternalBase().Unlock(),
                 "Abort due to required check: '!\\(error = pthread_mutex_unlock\\(&m_mutex\\)\\)' "
                 "Mutex unlock error 1");
}

TEST(SpinLock, RecursiveAndExclusive)
{
    SpinLock spin;
    long sum = 0;
    Testing::OnThreads(2, [&](int) {
        for (int i = 0; i < 5000; ++i) {
            const SpinGuard guard(spin);
            spin.Enter();
            spin.Leave(); // one level is still held
            const long seen = sum;
            std::this_thread::yield();
            sum = seen + 1;
        }
    });
    EXPECT_EQ(sum, 10000);
}

} // namespace
} // namespace Krt::Thread
