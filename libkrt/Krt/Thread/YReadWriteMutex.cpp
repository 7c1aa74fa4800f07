#include "Krt/Thread/YReadWriteMutex.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Thread/YReadWriteMutexInternal.h"

#include <utility>

namespace Krt::Thread {

YReadWriteMutex::YLock::YLock(YLock&& other) noexcept
    : m_internal(std::move(other.m_internal)), m_readLevels(std::exchange(other.m_readLevels, 0)),
      m_writeLevels(std::exchange(other.m_writeLevels, 0))
{}

YReadWriteMutex::YLock& YReadWriteMutex::YLock::operator=(YLock&& other) noexcept
{
    if (this != &other) {
        Release();
        m_internal = std::move(other.m_internal);
        m_readLevels = std::exchange(other.m_readLevels, 0);
        m_writeLevels = std::exchange(other.m_writeLevels, 0);
    }
    return *this;
}

void YReadWriteMutex::YLock::ReleaseHeld() noexcept
{
    if (m_readLevels != 0)
        m_internal->ReadFastForward(m_readLevels - 1);
    else if (m_writeLevels != 0)
        m_internal->WriteFastForward(m_writeLevels - 1);
    else if (m_internal->IsReadLockedByMe())
        m_internal->ReadUnlock();
    else
        m_internal->WriteUnlock();
    m_internal.reset();
    m_readLevels = m_writeLevels = 0;
}

void YReadWriteMutex::YLock::GiveUpAllLevels()
{
    if (m_internal && m_readLevels == 0 && m_writeLevels == 0)
        m_internal = m_internal->GiveUpAllLevels(m_readLevels, m_writeLevels);
}

YReadWriteMutex::YReadWriteMutex() : m_internal(YReadWriteMutexInternal::Make()) {}

void YReadWriteMutex::WaitToRead(const Time::YDuration& timeout) const
{
    if (!m_internal->ReadLock(timeout))
        KRT_RAISE_AS("ReadLock", MessageType::Runtime, ErrorCode::LockTimeout);
}

YReadWriteMutex::YLock YReadWriteMutex::WriteLock(const Time::YDuration& timeout) const
{
    if (!m_internal->WriteLock(timeout))
        KRT_RAISE_ON(MessageType::Runtime, ErrorCode::LockTimeout);
    return YLock(m_internal.get());
}

} // namespace Krt::Thread
