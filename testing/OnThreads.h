// Work on many threads at once.
#pragma once

#include <thread>
#include <vector>

namespace Testing {

/// Calls the work on `count` threads with their numbers from 0 on, and returns when all have ended.
template <class Work>
void OnThreads(int count, const Work& work)
{
    std::vector<std::thread> threads;
    for (int thread = 0; thread < count; ++thread)
        threads.emplace_back([&work, thread] { work(thread); });
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace Testing
