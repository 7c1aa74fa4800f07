// A thread that this layer started, with its stack of runnables: a request to cancel the thread reaches the
// topmost one.
#pragma once

#include "Krt/Thread/IRunnable.h"

#include <memory>

namespace Krt::Thread {

class KRT_API YThreadBase
{
public:
    /// Starts a thread that runs `function`. Raises the operating system's error.
    YThreadBase(boost::function<void()> function, const YString& name);
    /// Waits for the thread's end.
    virtual ~YThreadBase();
    YThreadBase(const YThreadBase&) = delete;
    YThreadBase& operator=(const YThreadBase&) = delete;

    /// Waits for the thread's end; a second call returns at once.
    void Join();
    /// The name; lives as long as this object.
    const YString& GetName() const;
    /// The error that ended the thread's function, an empty one if none did. For use after Join.
    const Exception::YError& GetError() const;

    /// From any thread: sets the flag, then calls the function of the topmost runnable, if there is one.
    void RequestCancel();
    /// Whether somebody did. Any thread.
    bool IsCancelRequested() const;

    /// The runnable must live until it is popped, once for each push; called on the thread itself. A pop
    /// takes its topmost place, after the end of a call by a request.
    void PushRunnable(IRunnable* runnable);
    void PopRunnable(IRunnable* runnable);

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace Krt::Thread
