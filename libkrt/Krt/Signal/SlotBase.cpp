#include "Krt/Signal/SlotBase.h"

#include "Krt/Thread/Thread.h"

#include <boost/make_shared.hpp>

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

namespace {

struct Shared
{
    const boost::shared_ptr<Thread::YMutexInternal> mutex = boost::make_shared<Thread::YMutexInternal>(0);
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
};

// Never destroyed: signals of static storage fire and disconnect until the very end of the process.
Shared& GetShared()
{
    static Shared* const shared = new Shared;
    return *shared;
}

} // namespace

Thread::YMutex::YLock Context::GetMutex()
{
    return Thread::YMutex::YLock(GetShared().mutex);
}

pthread_cond_t* Context::GetCondition()
{
    return &GetShared().condition;
}

void Context::Wait()
{
    GetShared().mutex->Wait(GetCondition());
}

} // namespace Krt::Signal
