// LockBench [MILLION_ROUNDS]: what taking and giving back a lock costs, in nanoseconds a pair, for the
// read/write lock and for std::shared_mutex, on one thread and on two at once. Prints medians of five.
#include "Krt/Signal/YSignal.h"
#include "Krt/Thread/Thread.h"
#include "Krt/Thread/YMutex.h"
#include "Krt/Thread/YReadWriteMutex.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

namespace {

const Krt::Time::YDuration Forever = Krt::Time::YDuration::Zero();

template <class Work>
double NanosecondsEach(long rounds, unsigned int threads, Work work)
{
    std::vector<double> results;
    for (int run = 0; run < 5; ++run) {
        const auto start = std::chrono::steady_clock::now();
        std::vector<std::thread> running;
        for (unsigned int i = 0; i < threads; ++i)
            running.emplace_back([&] {
                for (long round = 0; round < rounds; ++round)
                    work();
            });
        for (std::thread& thread : running)
            thread.join();
        const std::chrono::duration<double, std::nano> span = std::chrono::steady_clock::now() - start;
        results.push_back(span.count() / static_cast<double>(rounds));
    }
    std::nth_element(results.begin(), results.begin() + 2, results.end());
    return results[2];
}

} // namespace

int main(int argc, char** argv)
{
    const long rounds = (argc > 1 ? std::max(1L, std::atol(argv[1])) : 2) * 1000000;
    const Krt::Thread::YReadWriteMutex mutex;
    std::shared_mutex standard;
    const auto print = [](const char* name, double nanoseconds) {
        std::printf("%-34s %7.1f ns\n", name, nanoseconds);
    };
    for (const unsigned int threads : {1u, 2u}) {
        std::printf("%u thread%s\n", threads, threads == 1 ? "" : "s");
        print("  read", NanosecondsEach(rounds, threads, [&] { mutex.ReadLock(Forever); }));
        print("  read, std::shared_mutex",
              NanosecondsEach(rounds, threads, [&] { std::shared_lock<std::shared_mutex> lock(standard); }));
        print("  write", NanosecondsEach(rounds / 10, threads, [&] { mutex.WriteLock(Forever); }));
        print("  write, std::shared_mutex", NanosecondsEach(rounds / 10, threads, [&] {
                  std::unique_lock<std::shared_mutex> lock(standard);
              }));
        {
            const auto outer = mutex.ReadLock(Forever);
            print("  read, beside another reader",
                  NanosecondsEach(rounds, threads, [&] { mutex.ReadLock(Forever); }));
        }
        print("  read, nested in a read", NanosecondsEach(1, threads, [&] {
                                              const auto outer = mutex.ReadLock(Forever);
                                              for (long round = 0; round < rounds; ++round)
                                                  mutex.ReadLock(Forever);
                                          }) / static_cast<double>(rounds));
        const Krt::Thread::YMutex recursive;
        print("  recursive mutex", NanosecondsEach(rounds / 10, threads, [&] { recursive.Lock(); }));
        const Krt::Signal::YSignal<void()> signal;
        print("  firing without slots", NanosecondsEach(rounds / 10, threads, [&] { signal(); }));
        print("  thread id", NanosecondsEach(rounds, threads, [] { Krt::Thread::GetThreadId(); }));
    }
    return 0;
}
