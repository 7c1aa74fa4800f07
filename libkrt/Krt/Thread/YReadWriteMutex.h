// A lock for several readers or one writer, recursive on a thread in both kinds. A thread that writes may
// take further levels of either kind, and a thread that reads may take further read levels. A reader that
// wants to write waits for the other readers to leave. The fast path of readers is inline.
#pragma once

#include "Krt/Export.h"
#include "Krt/Thread/ReaderSlots.h"
#include "Krt/Time/YDuration.h"

#include <boost/shared_ptr.hpp>

namespace Krt::Thread {

class KRT_API YReadWriteMutex
{
public:
    /// A held level; movable. It doesn't know its kind: whichever lock of a thread is released, the thread's
    /// read levels go first, and its write levels last. A thread that writes excludes others until it has no
    /// level. It may outlive the mutex.
    class KRT_API YLock
    {
    public:
        YLock() = default;
        YLock(YLock&& other) noexcept;
        YLock& operator=(YLock&& other) noexcept;
        ~YLock() { Release(); }
        /// Releases a level; a second call does nothing. On the thread that took it, in any order.
        void Release() noexcept
        {
            if (!m_internal)
                return;
            const bool isPlain = (m_readLevels | m_writeLevels) == 0;
            if (isPlain && ReaderSlots::Mine().TryReadUnlock(m_internal.get()))
                m_internal.reset();
            else
                ReleaseSlow();
        }
        /// Gives up every level that this thread holds, for a wait. The release takes all but this lock's own
        /// level again: for writing if one of them was.
        void GiveUpAllLevels();

    private:
        friend class YReadWriteMutex;
        // The pointer owns no reference, and may dangle: a reference count that all threads write would make
        // readers share memory. Once the levels are given up, it owns one.
        explicit YLock(YReadWriteMutexInternal* internal) noexcept
            : m_internal(boost::shared_ptr<void>(), internal)
        {}
        void ReleaseSlow() noexcept;

        boost::shared_ptr<YReadWriteMutexInternal> m_internal;
        // Levels to take again at release; both 0 for a plain lock.
        unsigned int m_readLevels = 0;
        unsigned int m_writeLevels = 0;
    };

    /// An unlocked mutex. Raises if memory can't be had.
    YReadWriteMutex();

    /// Takes a read level. A timeout of zero waits without limit; a positive one is measured on the steady
    /// clock. Raises LockTimeout.
    YLock ReadLock(const Time::YDuration& timeout) const
    {
        if (!ReaderSlots::Mine().TryReadLock(m_internal.get())) [[unlikely]]
            ReadLockSlow(timeout);
        return YLock(m_internal.get());
    }
    /// Takes a write level, with a timeout like that of ReadLock. Raises LockTimeout, and at once if the
    /// thread reads while another reader waits to write.
    YLock WriteLock(const Time::YDuration& timeout) const;

private:
    void ReadLockSlow(const Time::YDuration& timeout) const;

    boost::shared_ptr<YReadWriteMutexInternal> m_internal;
};

} // namespace Krt::Thread
