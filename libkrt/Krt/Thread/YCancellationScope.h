#pragma once

#include "Krt/Thread/IRunnable.h"

#include <atomic>

namespace Krt::Thread {

class YThreadBase;

/// A scope that a request to cancel the calling thread reaches as long as it exists.
class KRT_API YCancellationScope
{
public:
    /// Pushes the scope on the calling thread's stack of runnables. Scopes are destroyed on the same
    /// thread, in reverse order.
    YCancellationScope();
    ~YCancellationScope();
    YCancellationScope(const YCancellationScope&) = delete;
    YCancellationScope& operator=(const YCancellationScope&) = delete;

    /// Returns true if a request to cancel reached this scope. Any thread.
    bool IsCancelled() const { return m_cancelled.load(); }

private:
    void Cancel();

    std::atomic<bool> m_cancelled{false};
    YThreadBase* const m_thread; // nullptr on a thread without a YThreadBase, which cannot be cancelled
    IRunnable m_runnable;
};

} // namespace Krt::Thread
