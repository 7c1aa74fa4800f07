// A recursive mutex that objects hold through a shared pointer, so that a lock can outlive what it guards.
#pragma once

#include "Krt/Export.h"
#include "Krt/Thread/Unix/YMutexInternalBase.h"

#include <atomic>
#include <boost/shared_ptr.hpp>

namespace Krt::Thread {

/// The mutex itself: whose it is, and at how many levels.
class KRT_API YMutexInternal : public YMutexInternalBase
{
public:
    /// The argument is not used. Raises MutexInitFailed.
    explicit YMutexInternal(int reserved);

    /// Takes one level; the first one stores the owner.
    void LockLevel();
    /// Gives one level back.
    void UnlockLevel();
    /// Gives up every level that the caller holds, waits on the condition, and takes them again.
    void Wait(pthread_cond_t* condition);
    /// Whether the calling thread holds the mutex.
    bool IsLockedByMe() const;
    /// Levels that the owner holds.
    unsigned int GetLockCount() const { return m_lockCount.load(); }

private:
    std::atomic<unsigned int> m_lockCount{0};
    std::atomic<unsigned long long> m_owner{0};
};

class KRT_API YMutex
{
public:
    /// A held lock; movable. Released by its destructor.
    class KRT_API YLock
    {
    public:
        YLock() = default;
        /// Takes a level; a null pointer gives an empty lock.
        explicit YLock(boost::shared_ptr<YMutexInternal> mutex);
        YLock(YLock&& other) noexcept;
        YLock& operator=(YLock&& other) noexcept;
        ~YLock();

        /// Gives up every level that this thread holds, for a wait; the destructor brings all but this lock's
        /// own level back.
        void GiveUpAllLevels();

    private:
        void Release() noexcept;

        bool m_empty = true;
        boost::shared_ptr<YMutexInternal> m_mutex;
        // 0 for a lock held normally, else the levels that were taken off the mutex for the time being.
        unsigned int m_releasedLevels = 0;
    };

    /// A null pointer is a mutex that does nothing.
    explicit YMutex(boost::shared_ptr<YMutexInternal> internal);
    /// A mutex of its own.
    YMutex();

    /// Waits without limit. Recursive on a thread.
    YLock Lock() const;

private:
    boost::shared_ptr<YMutexInternal> m_internal;
};

} // namespace Krt::Thread
