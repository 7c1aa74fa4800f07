// While a scope is up, a request to cancel the calling thread reaches it.
#pragma once

#include "Krt/Thread/IRunnable.h"

#include <atomic>

namespace Krt::Thread {

class YThreadBase;

class KRT_API YCancellationScope
{
public:
    /// Goes onto the calling thread's stack; ends on the same thread, last made first.
    YCancellationScope();
    ~YCancellationScope();
    YCancellationScope(const YCancellationScope&) = delete;
    YCancellationScope& operator=(const YCancellationScope&) = delete;

    /// Whether a cancellation reached this scope. From any thread.
    bool IsCancelled() const { return m_cancelled.load(); }

private:
    void Cancel();

    std::atomic<bool> m_cancelled{false};
    YThreadBase* const m_thread; // null on a foreign thread, which nobody can ask to cancel
    IRunnable m_runnable;
};

} // namespace Krt::Thread
