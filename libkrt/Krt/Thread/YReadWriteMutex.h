// A lock for several readers or one writer, recursive on a thread in both kinds: whoever writes may read and
// write again, whoever reads may read again, and a reader that wants to write waits for the others to leave.
// What a reader needs in the common case stands here, so that it is compiled into the caller.
#pragma once

#include "Krt/Export.h"
#include "Krt/Thread/LockRecord.h"
#include "Krt/Time/YDuration.h"

#include <boost/shared_ptr.hpp>

namespace Krt::Thread {

class KRT_API YReadWriteMutex
{
public:
    /// A held level; movable. It doesn't know its kind: whichever lock of a thread is released, the thread's
    /// read levels go first, and its write levels last. A thread that writes excludes others until it has no
    /// level.
    class KRT_API YLock
    {
    public:
        YLock() = default;
        YLock(YLock&& other) noexcept;
        YLock& operator=(YLock&& other) noexcept;
        ~YLock() { Release(); }
        /// Gives a level back; a second call does nothing. On the thread that took it, in any order.
        void Release() noexcept
        {
            if (!m_internal)
                return;
            const bool isPlain = (m_readLevels | m_writeLevels) == 0;
            if (isPlain && LockRecordTable::Mine().GiveReadLevel(m_internal.get()))
                m_internal.reset();
            else
                ReleaseHeld();
        }
        /// Gives up every level that this thread holds, for a wait; the release brings all but this lock's
        /// own level back, all for writing if one was.
        void GiveUpAllLevels();

    private:
        friend class YReadWriteMutex;
        // The pointer owns no share: the levels that the thread holds keep the object, and a count that all
        // threads write would make readers wait for each other's memory.
        explicit YLock(YReadWriteMutexInternal* internal) noexcept
            : m_internal(boost::shared_ptr<void>(), internal)
        {}
        void ReleaseHeld() noexcept;

        boost::shared_ptr<YReadWriteMutexInternal> m_internal;
        // Levels to bring back at release; both 0 for a plain lock.
        unsigned int m_readLevels = 0;
        unsigned int m_writeLevels = 0;
    };

    /// A lock that nobody holds. Raises if memory can't be had.
    YReadWriteMutex();

    /// Zero waits without limit; a positive time is measured on the steady clock. Raises LockTimeout.
    YLock ReadLock(const Time::YDuration& timeout) const
    {
        if (!LockRecordTable::Mine().TakeReadLevel(m_internal.get())) [[unlikely]]
            WaitToRead(timeout);
        return YLock(m_internal.get());
    }
    /// The same for writing; a second reader that wants to write raises LockTimeout at once.
    YLock WriteLock(const Time::YDuration& timeout) const;

private:
    void WaitToRead(const Time::YDuration& timeout) const;

    boost::shared_ptr<YReadWriteMutexInternal> m_internal;
};

} // namespace Krt::Thread
