// Work that several threads do at once, while the calling thread reports.
#pragma once

#include <functional>

namespace Agent {

/// How many threads decrypt and verify: those of the processor, at least 2, at most 8.
unsigned int WorkerCount();

/// Calls `work` on each of `count` threads, and `meanwhile` on the calling one, about 10 times a second, and
/// once after the last thread has ended. Raises what the first of the calls raised, after all have ended; so
/// `work` has to end soon when another one fails, which `hasFailed` returns.
void RunOnThreads(unsigned int count, const std::function<void(const std::function<bool()>& hasFailed)>& work,
                  const std::function<void()>& meanwhile);

} // namespace Agent
