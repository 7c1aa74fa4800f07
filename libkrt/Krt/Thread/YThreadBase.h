#pragma once

#include "Krt/Thread/IRunnable.h"

#include <memory>

namespace Krt::Thread {

/// A thread with its stack of runnables. A request to cancel the thread reaches the topmost one.
class KRT_API YThreadBase
{
public:
    /// Starts a thread that runs `function`. Raises the operating system's error.
    YThreadBase(boost::function<void()> function, const YString& name);
    /// Waits until the thread has ended.
    virtual ~YThreadBase();
    YThreadBase(const YThreadBase&) = delete;
    YThreadBase& operator=(const YThreadBase&) = delete;

    /// Waits until the thread has ended; a second call returns at once.
    void Join();
    /// The name. Valid as long as this object.
    const YString& GetName() const;
    /// The error that ended the thread's function; an empty error if it succeeded. For use after Join.
    const Exception::YError& GetError() const;

    /// Sets the flag, then calls the function of the topmost runnable, if there is one, unless another
    /// request is calling it. Any thread.
    void RequestCancel();
    /// Returns true after RequestCancel. Any thread.
    bool IsCancelRequested() const;

    /// Adds the topmost runnable, which must exist until it is popped. Called on the thread itself.
    void PushRunnable(IRunnable* runnable);
    /// Removes the topmost occurrence of `runnable`, after waiting for a call by RequestCancel in progress.
    /// Called on the thread itself, once for each push.
    void PopRunnable(IRunnable* runnable);

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace Krt::Thread
