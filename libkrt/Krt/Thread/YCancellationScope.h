// While a scope is up, a request to cancel the calling thread reaches it.
#pragma once

#include "Krt/Thread/IRunnable.h"

#include <atomic>
#include <memory>

namespace Krt::Thread {

class YThreadBase;

class KRT_API YCancellationScope
{
public:
    YCancellationScope();
    ~YCancellationScope();
    YCancellationScope(const YCancellationScope&) = delete;
    YCancellationScope& operator=(const YCancellationScope&) = delete;

    /// Whether a cancellation reached this scope. From any thread.
    bool IsCancelled() const { return m_cancelled.load(); }

private:
    void Cancel();

    std::unique_ptr<IRunnable> m_runnable;
    YThreadBase* m_thread;
    std::atomic<bool> m_cancelled{false};
};

} // namespace Krt::Thread
