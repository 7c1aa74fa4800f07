#include "Krt/Thread/YThreadBase.h"

#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Log/MessageType.h"
#include "Krt/Thread/Thread.h"
#include "Krt/Thread/ThreadSafety.h"
#include "Krt/Thread/Unix/NativeThread.h"
#include "Krt/Thread/YCancellationScope.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <utility>
#include <vector>

namespace Krt::Thread {

namespace {

constinit thread_local YThreadBase* t_thread = nullptr;

} // namespace

class KRT_HIDDEN YThreadBase::Impl
{
public:
    Impl(YThreadBase* thread, boost::function<void()> function, const YString& name)
        : m_thread(thread), m_work(std::move(function), name)
    {}

    // Returns 0, or the error number of the operating system.
    int Start() { return pthread_create(&m_handle, nullptr, &Impl::Main, this); }
    void Join();
    void RequestCancel();
    void Push(IRunnable* runnable);
    void Pop(IRunnable* runnable);

    YThreadBase* const m_thread;
    IRunnable m_work;
    std::atomic<bool> m_cancelRequested{false};

private:
    static void* Main(void* impl);
    bool IsCalled(IRunnable* runnable) const KRT_REQUIRES(m_stackMutex)
    {
        return std::ranges::count(m_called, runnable) != 0;
    }

    AnnotatedMutex m_joinMutex;
    pthread_t m_handle{};
    bool m_joined KRT_GUARDED_BY(m_joinMutex) = false;

    AnnotatedMutex m_stackMutex;
    std::condition_variable m_callEnded;
    std::vector<IRunnable*> m_stack KRT_GUARDED_BY(m_stackMutex);
    // Called by requests, without the mutex; each at most once.
    std::vector<IRunnable*> m_called KRT_GUARDED_BY(m_stackMutex);
};

void* YThreadBase::Impl::Main(void* impl)
{
    Impl& self = *static_cast<Impl*>(impl);
    t_thread = self.m_thread;
    PublishThreadName(self.m_work.GetName().CStr());
    self.m_work.Run();
    return nullptr;
}

void YThreadBase::Impl::Join()
{
    const AnnotatedLock guard(m_joinMutex);
    if (!std::exchange(m_joined, true))
        pthread_join(m_handle, nullptr);
}

void YThreadBase::Impl::Push(IRunnable* runnable)
{
    const AnnotatedLock guard(m_stackMutex);
    m_stack.push_back(runnable);
}

void YThreadBase::Impl::Pop(IRunnable* runnable)
{
    AnnotatedLock guard(m_stackMutex);
    guard.Wait(m_callEnded, [&] {
        m_stackMutex.AssertHeld();
        return !IsCalled(runnable);
    });
    if (const auto entry = std::find(m_stack.rbegin(), m_stack.rend(), runnable); entry != m_stack.rend())
        m_stack.erase(std::next(entry).base());
}

// The function is called without the lock, since it may do anything; Pop waits for the end of the call
// instead. A request that arrives during another request's call of the same runnable does nothing.
void YThreadBase::Impl::RequestCancel()
{
    m_cancelRequested.store(true);
    AnnotatedLock guard(m_stackMutex);
    if (m_stack.empty() || IsCalled(m_stack.back()))
        return;
    IRunnable* const top = m_stack.back();
    m_called.push_back(top);
    guard.Unlock();
    top->Run();
    guard.Lock();
    std::erase(m_called, top);
    m_callEnded.notify_all();
}

YThreadBase* GetThread()
{
    return t_thread;
}

YThreadBase::YThreadBase(boost::function<void()> function, const YString& name)
    : m_impl(std::make_unique<Impl>(this, std::move(function), name))
{
    const int error = m_impl->Start();
    if (error != 0)
        KRT_RAISE_OS(error, "Failed to start thread " << name);
}

YThreadBase::~YThreadBase()
{
    Join();
}

void YThreadBase::Join()
{
    m_impl->Join();
}

const YString& YThreadBase::GetName() const
{
    return m_impl->m_work.GetName();
}

const Exception::YError& YThreadBase::GetError() const
{
    return m_impl->m_work.GetError();
}

void YThreadBase::RequestCancel()
{
    m_impl->RequestCancel();
}

bool YThreadBase::IsCancelRequested() const
{
    return m_impl->m_cancelRequested.load();
}

void YThreadBase::PushRunnable(IRunnable* runnable)
{
    m_impl->Push(runnable);
}

void YThreadBase::PopRunnable(IRunnable* runnable)
{
    m_impl->Pop(runnable);
}

IRunnable::IRunnable(boost::function<void()> function, YString name)
    : m_function(std::move(function)), m_name(std::move(name))
{}

// The error is stored only after a failure, so that a cancellation costs no more than the call.
void IRunnable::Run()
{
    if (m_function.empty())
        return;
    try {
        CallFunction(m_function);
    } catch (const Exception::YError& error) {
        m_error = error;
    } catch (const std::exception& failure) {
        m_error = Exception::TranslateYError(failure, MessageType::General, __LINE__, KRT_SOURCE_FILE,
                                             __func__, YString());
    }
}

YCancellationScope::YCancellationScope()
    : m_thread(GetThread()),
      m_runnable(m_thread ? boost::function<void()>([this] { Cancel(); }) : boost::function<void()>(),
                 YString())
{
    if (m_thread)
        m_thread->PushRunnable(&m_runnable);
}

YCancellationScope::~YCancellationScope()
{
    if (m_thread)
        m_thread->PopRunnable(&m_runnable);
}

void YCancellationScope::Cancel()
{
    m_cancelled.store(true);
}

} // namespace Krt::Thread
