#include "Krt/Thread/YMutex.h"

#include "Krt/Thread/Thread.h"

#include <boost/make_shared.hpp>

#include <utility>

namespace Krt::Thread {

YMutexInternal::YMutexInternal(int) {}

// The pthread mutex orders all accesses. Count and owner are atomic for threads that read them without it;
// such a thread may only rely on whether it is the owner itself.
void YMutexInternal::LockLevel()
{
    Lock();
    if (m_lockCount.fetch_add(1, std::memory_order_relaxed) == 0)
        m_owner.store(GetThreadId(), std::memory_order_relaxed);
}

void YMutexInternal::UnlockLevel()
{
    if (m_lockCount.load(std::memory_order_relaxed) == 1)
        m_owner.store(0, std::memory_order_relaxed);
    m_lockCount.fetch_sub(1, std::memory_order_relaxed);
    Unlock();
}

// pthread_cond_wait releases one level only, and another thread would find a count that isn't its own.
void YMutexInternal::Wait(pthread_cond_t* condition)
{
    const unsigned int levels = GetLockCount();
    for (unsigned int level = 1; level < levels; ++level)
        UnlockLevel();
    m_owner.store(0, std::memory_order_relaxed);
    m_lockCount.store(0, std::memory_order_relaxed);
    pthread_cond_wait(condition, &m_mutex);
    m_lockCount.store(1, std::memory_order_relaxed);
    m_owner.store(GetThreadId(), std::memory_order_relaxed);
    for (unsigned int level = 1; level < levels; ++level)
        LockLevel();
}

bool YMutexInternal::IsLockedByMe() const
{
    return m_owner.load(std::memory_order_relaxed) == GetThreadId();
}

YMutex::YLock::YLock(boost::shared_ptr<YMutexInternal> mutex) : m_empty(!mutex), m_mutex(std::move(mutex))
{
    if (!m_empty)
        m_mutex->LockLevel();
}

YMutex::YLock::YLock(YLock&& other) noexcept
    : m_empty(std::exchange(other.m_empty, true)), m_mutex(std::move(other.m_mutex)),
      m_releasedLevels(std::exchange(other.m_releasedLevels, 0))
{}

YMutex::YLock& YMutex::YLock::operator=(YLock&& other) noexcept
{
    if (this != &other) {
        Release();
        m_empty = std::exchange(other.m_empty, true);
        m_mutex = std::move(other.m_mutex);
        m_releasedLevels = std::exchange(other.m_releasedLevels, 0);
    }
    return *this;
}

YMutex::YLock::~YLock()
{
    Release();
}

void YMutex::YLock::GiveUpAllLevels()
{
    if (m_empty || m_releasedLevels != 0)
        return;
    m_releasedLevels = m_mutex->GetLockCount();
    for (unsigned int level = 0; level < m_releasedLevels; ++level)
        m_mutex->UnlockLevel();
}

void YMutex::YLock::Release() noexcept
{
    if (m_empty)
        return;
    if (m_releasedLevels == 0)
        m_mutex->UnlockLevel();
    for (unsigned int level = 1; level < m_releasedLevels; ++level)
        m_mutex->LockLevel();
    m_empty = true;
    m_mutex.reset();
    m_releasedLevels = 0;
}

YMutex::YMutex(boost::shared_ptr<YMutexInternal> internal) : m_internal(std::move(internal)) {}

YMutex::YMutex() : m_internal(boost::make_shared<YMutexInternal>(0)) {}

YMutex::YLock YMutex::Lock() const
{
    return YLock(m_internal);
}

} // namespace Krt::Thread
