#pragma once

#include "Krt/Export.h"
#include "Krt/Thread/Unix/YMutexInternalBase.h"

#include <atomic>
#include <boost/shared_ptr.hpp>

namespace Krt::Thread {

/// The recursive mutex itself, with its owner and recursion count.
class KRT_API YMutexInternal : public YMutexInternalBase
{
public:
    /// `reserved` is ignored. Raises MutexInitFailed.
    explicit YMutexInternal(int reserved);

    /// Acquires the mutex and increments the recursion count; stores the owner.
    void LockLevel();
    /// Decrements the recursion count and releases the mutex at 0.
    void UnlockLevel();
    /// Releases the mutex completely, waits on `condition`, and restores the recursion count.
    void Wait(pthread_cond_t* condition);
    /// Returns true if the calling thread holds the mutex.
    bool IsLockedByMe() const;
    /// The owner's recursion count.
    unsigned int GetLockCount() const { return m_lockCount.load(); }

private:
    std::atomic<unsigned int> m_lockCount{0};
    std::atomic<unsigned long long> m_owner{0};
};

/// A recursive mutex. Objects hold it by a shared pointer, so a lock may outlive the object that it guards.
class KRT_API YMutex
{
public:
    /// A held lock, released by its destructor. Movable.
    class KRT_API YLock
    {
    public:
        YLock() = default;
        /// Acquires `mutex`; nullptr results in an empty lock.
        explicit YLock(boost::shared_ptr<YMutexInternal> mutex);
        /// Moves the lock; `other` is empty afterwards.
        YLock(YLock&& other) noexcept;
        /// Releases the lock, then moves that of `other`, which is empty afterwards.
        YLock& operator=(YLock&& other) noexcept;
        ~YLock();

        /// Releases the mutex completely, for a wait. The destructor restores the recursion count less this
        /// lock.
        void GiveUpAllLevels();

    private:
        void Release() noexcept;

        bool m_empty = true;
        boost::shared_ptr<YMutexInternal> m_mutex;
        // 0 for a lock held normally, otherwise the released levels to acquire again.
        unsigned int m_releasedLevels = 0;
    };

    /// Shares `internal`; nullptr is a mutex without an effect.
    explicit YMutex(boost::shared_ptr<YMutexInternal> internal);
    /// Creates a mutex. Raises MutexInitFailed.
    YMutex();

    /// Acquires the mutex without a time limit. Recursive within a thread.
    YLock Lock() const;

private:
    boost::shared_ptr<YMutexInternal> m_internal;
};

} // namespace Krt::Thread
