// Work on many threads at once.
#pragma once

#include <thread>
#include <vector>

namespace Testing {

/// Calls the work on so many threads, with 0 for the first of them, and returns when all are done.
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
