#include "Krt/Thread/YCancellationScope.h"

#include "Krt/Thread/Thread.h"
#include "Krt/Thread/YThreadBase.h"

namespace Krt::Thread {

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
