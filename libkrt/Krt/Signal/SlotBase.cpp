#include "Krt/Signal/SlotBase.h"

#include "Krt/Signal/Context.h"
#include "Krt/Thread/Thread.h"

namespace Krt::Signal {

void SlotBase::IncExecuter()
{
    ++m_executers[Thread::GetThreadId()];
}

void SlotBase::DecExecuter()
{
    const auto entry = m_executers.find(Thread::GetThreadId());
    if (entry != m_executers.end() && --entry->second == 0)
        m_executers.erase(entry);
}

void SlotBase::Disconnect()
{
    const Thread::YMutex::YLock lock = Context::GetMutex();
    m_connected = false;
    const unsigned long long me = Thread::GetThreadId();
    while (m_executers.size() > m_executers.count(me))
        Context::Wait();
}

SlotExecution::SlotExecution(SlotBase& slot, Thread::YMutex::YLock& contextLock)
    : m_slot(slot), m_lock(contextLock)
{
    m_slot.IncExecuter();
    m_lock.GiveUpAllLevels();
}

SlotExecution::~SlotExecution()
{
    m_lock = Context::GetMutex();
    m_slot.DecExecuter();
    pthread_cond_broadcast(Context::GetCondition());
}

} // namespace Krt::Signal
