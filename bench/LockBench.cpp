// LockBench [--quick]: what taking and giving back a lock costs, in nanoseconds a pair and as a multiple of
// std::shared_mutex, with which it takes turns.
#include "Krt/Signal/YSignal.h"
#include "Krt/Thread/Thread.h"
#include "Krt/Thread/YMutex.h"
#include "Krt/Thread/YReadWriteMutex.h"
#include "bench/Measure.h"

#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>

namespace {

constexpr int Rounds = 9;
const Krt::Time::YDuration Forever = Krt::Time::YDuration::Zero();

// Repeats the work on `threads` new threads, or on this thread if that is 0.
template <class Work>
std::function<void()> Repeat(long count, unsigned int threads, Work work)
{
    if (threads == 0)
        return [=] {
            for (long done = 0; done < count; ++done)
                work();
        };
    return [=] {
        std::vector<std::thread> running;
        for (unsigned int i = 0; i < threads; ++i)
            running.emplace_back([=] {
                for (long done = 0; done < count; ++done)
                    work();
            });
        for (std::thread& thread : running)
            thread.join();
    };
}

// Compares our lock with the standard's: nanoseconds of both, and their ratio.
template <class Ours, class Standard>
void Compare(const std::string& name, long count, unsigned int threads, Ours ours, Standard standard)
{
    const auto seconds =
        Bench::SecondsInTurns(Rounds, {Repeat(count, threads, ours), Repeat(count, threads, standard)});
    const double scale = 1e9 / static_cast<double>(count);
    Bench::PrintRow((name + ".ours").c_str(), seconds[0] * scale, "ns");
    Bench::PrintRow((name + ".shared_mutex").c_str(), seconds[1] * scale, "ns");
    Bench::PrintRow(name.c_str(), seconds[0] / seconds[1], "x");
}

template <class Work>
void Alone(const char* name, long count, Work work)
{
    Bench::PrintRow(name, Bench::Seconds(Rounds, Repeat(count, 1, work)) * 1e9 / static_cast<double>(count),
                    "ns");
}

} // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::string(argv[1]) == "--quick";
    const long count = quick ? 100000 : 2000000;
    const Krt::Thread::YReadWriteMutex mutex;
    std::shared_mutex standard;
    const auto read = [&] {
        mutex.ReadLock(Forever);
    };
    const auto readStandard = [&] {
        std::shared_lock<std::shared_mutex> lock(standard);
    };
    const auto write = [&] {
        mutex.WriteLock(Forever);
    };
    const auto writeStandard = [&] {
        std::unique_lock<std::shared_mutex> lock(standard);
    };
    Compare("lock.read", count, 1, read, readStandard);
    Compare("lock.read.two_threads", count, 2, read, readStandard);
    Compare("lock.write", count / 10, 1, write, writeStandard);
    // This thread reads already and reads again. The standard's lock doesn't promise to bear that, so that
    // there each level is a first one.
    const auto outer = mutex.ReadLock(Forever);
    Compare("lock.read.nested", count, 0, read, readStandard);

    const Krt::Thread::YMutex recursive;
    Alone("mutex.recursive", count / 10, [&] { recursive.Lock(); });
    const Krt::Signal::YSignal<void()> signal;
    Alone("signal.without_slots", count / 10, [&] { signal(); });
    Alone("thread.id", count, [] { Krt::Thread::GetThreadId(); });
    return 0;
}
