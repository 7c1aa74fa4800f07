#include "Krt/Thread/YThreadBase.h"
#include "Krt/Thread/YCancellationScope.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Thread/Thread.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>

namespace Krt::Thread {
namespace {

TEST(GetThreadId, RenewedAfterFork)
{
    const unsigned long long parent = GetThreadId();
    const pid_t child = fork();
    if (child == 0)
        _exit(GetThreadId() != parent && GetThreadId() == GetThreadId() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    std::thread([&] { EXPECT_NE(GetThreadId(), parent); }).join();
}

TEST(YThreadBase, ThreadKnowsObjectAndName)
{
    const std::string umlauts = "a name of \xC3\xA4\xC3\xB6\xC3\xBC\xC3\x9F"; // too long for some systems
    for (const std::string& given : {std::string(), std::string("walker"), umlauts}) {
        YThreadBase* seen = nullptr;
        YString name;
        char systemName[64] = "";
        YThreadBase thread(
            [&] {
                seen = GetThread();
                name = GetName();
                pthread_getname_np(pthread_self(), systemName, sizeof systemName);
            },
            given.c_str());
        thread.Join();
        EXPECT_EQ(seen, &thread);
        EXPECT_EQ(name, given.c_str());
        const std::size_t known = std::strlen(systemName);
        EXPECT_TRUE(given.starts_with(systemName) && known >= std::min<std::size_t>(given.size(), 14))
            << systemName;
        EXPECT_NE(static_cast<unsigned char>(given.c_str()[known]) & 0xC0, 0x80) << "cut amid a character";
    }
    EXPECT_EQ(GetThread(), nullptr);
    std::thread([] {
        EXPECT_EQ(GetThread(), nullptr);
        EXPECT_FALSE(GetName().IsEmpty()) << "the one that the system knows";
    }).join();
}

TEST(YThreadBase, ErrorOfFunctionIsKept)
{
    YThreadBase raising([] { KRT_RAISE_AS("Work", MessageType::Volume, ErrorCode::NotFound, "lost"); }, "");
    YThreadBase throwing([] { throw std::runtime_error("no luck"); }, "");
    YThreadBase quiet([] {}, "");
    for (YThreadBase* thread : {&raising, &throwing, &quiet, &quiet})
        thread->Join();
    EXPECT_EQ(raising.GetError().GetCode(), static_cast<unsigned int>(ErrorCode::NotFound));
    EXPECT_EQ(raising.GetError().GetMessage(), "lost");
    EXPECT_NE(throwing.GetError().GetMessage().Bytes().find("no luck"), std::string::npos);
    EXPECT_EQ(quiet.GetError().GetCode(), 0u);
}

TEST(YThreadBase, CancelReachesTopmostScopeOnly)
{
    YThreadBase thread(
        [&] {
            const YCancellationScope outer;
            {
                const YCancellationScope inner;
                EXPECT_FALSE(GetThread()->IsCancelRequested());
                GetThread()->RequestCancel();
                EXPECT_TRUE(inner.IsCancelled());
            }
            EXPECT_FALSE(outer.IsCancelled());
        },
        "");
    thread.Join();
    thread.RequestCancel();
    EXPECT_TRUE(thread.IsCancelRequested());
    const YCancellationScope foreign;
    EXPECT_FALSE(foreign.IsCancelled());
}

TEST(YThreadBase, PopWaitsForRunningCancelRequest)
{
    std::latch pushed(2), called(2);
    std::atomic<bool> finished = false;
    YThreadBase thread(
        [&] {
            IRunnable runnable(
                [&] {
                    called.arrive_and_wait();
                    for (int i = 0; i < 100; ++i)
                        std::this_thread::yield();
                    finished = true;
                },
                "");
            GetThread()->PushRunnable(&runnable);
            pushed.arrive_and_wait();
            called.arrive_and_wait();
            GetThread()->PopRunnable(&runnable);
            EXPECT_TRUE(finished);
        },
        "");
    pushed.arrive_and_wait();
    thread.RequestCancel();
}

TEST(YThreadBase, RunnablePushedTwice)
{
    YThreadBase thread(
        [] {
            int first = 0, second = 0;
            IRunnable twice([&] { ++first; }, ""), between([&] { ++second; }, "");
            for (IRunnable* const runnable : {&twice, &between, &twice})
                GetThread()->PushRunnable(runnable);
            GetThread()->RequestCancel();
            GetThread()->PopRunnable(&twice);
            GetThread()->RequestCancel();
            GetThread()->PopRunnable(&between);
            GetThread()->RequestCancel();
            GetThread()->PopRunnable(&twice);
            GetThread()->RequestCancel();
            EXPECT_EQ(first, 2);
            EXPECT_EQ(second, 1);
        },
        "");
}

// For the thread checker: scopes come and go while requests arrive.
TEST(YThreadBase, CancelRequestsRaceWithScopes)
{
    std::atomic<bool> done = false;
    YThreadBase thread(
        [&] {
            for (int i = 0; i < 2000; ++i)
                const YCancellationScope scope;
            done = true;
        },
        "");
    while (!done)
        thread.RequestCancel();
}

} // namespace
} // namespace Krt::Thread
