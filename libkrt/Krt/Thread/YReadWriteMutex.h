#pragma once

#include "Krt/Export.h"
#include "Krt/Thread/ReaderSlots.h"
#include "Krt/Time/YDuration.h"

#include <boost/shared_ptr.hpp>

namespace Krt::Thread {

/// A lock for several readers or one writer, recursive within a thread. A thread with the write lock may
/// acquire both kinds again; a thread with a read lock may acquire further read locks. A reader that
/// acquires the write lock waits until the other readers have released theirs. The fast path of readers is
/// inline.
class KRT_API YReadWriteMutex
{
public:
    /// A held lock. Movable. It does not know its kind: whichever lock of a thread is released, the
    /// thread's read locks end first and its write locks last. A thread with the write lock excludes others
    /// until it has released all of its locks. A lock may outlive the mutex.
    class KRT_API YLock
    {
    public:
        YLock() = default;
        /// Moves the lock; `other` is empty afterwards.
        YLock(YLock&& other) noexcept;
        /// Releases the lock, then moves that of `other`, which is empty afterwards.
        YLock& operator=(YLock&& other) noexcept;
        ~YLock() { Release(); }
        /// Releases the lock; a second call does nothing. Called on the thread that acquired it, in any
        /// order of locks. On a thread that does not hold the lock, it ends the process.
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
        /// Releases all locks of this thread, for a wait. Release acquires them again except this one, for
        /// writing if any of them was a write lock.
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
        // Levels to acquire again at release; 0 for a plain lock.
        unsigned int m_readLevels = 0;
        unsigned int m_writeLevels = 0;
    };

    /// An unlocked mutex. Raises if memory is exhausted.
    YReadWriteMutex();

    /// Acquires a read lock. A `timeout` of zero waits without limit; a positive one is measured on the
    /// steady clock; with a negative one the call does not wait. Raises LockTimeout.
    YLock ReadLock(const Time::YDuration& timeout) const
    {
        if (!ReaderSlots::Mine().TryReadLock(m_internal.get())) [[unlikely]]
            ReadLockSlow(timeout);
        return YLock(m_internal.get());
    }
    /// Acquires a write lock; see ReadLock for `timeout`. Raises LockTimeout, also at once if this thread
    /// and another one both hold read locks and wait to write.
    YLock WriteLock(const Time::YDuration& timeout) const;

private:
    void ReadLockSlow(const Time::YDuration& timeout) const;

    boost::shared_ptr<YReadWriteMutexInternal> m_internal;
};

} // namespace Krt::Thread
