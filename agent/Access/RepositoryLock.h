// RepositoryLock: keeps a lock file in a repository while a command uses it. Locks that are not exclusive may
// exist at the same time. An exclusive lock excludes all others. Age is not considered: the lock of a process
// that has died excludes others until `unlock` removes it.
#pragma once

#include "agent/Repository/Lock.h"
#include "agent/Repository/Repository.h"
#include "agent/Run/Interrupt.h"

#include "Krt/Thread/ThreadSafety.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <optional>
#include <thread>

namespace Agent {

/// The repository is locked by another process.
class LockedError : public Krt::Exception::YError
{
public:
    explicit LockedError(const Krt::Exception::YError& cause) : YError(cause) {}
};

/// How a repository is locked.
struct LockSettings
{
    bool isExclusive = false;
    /// How long an attempt is repeated while another process has a lock.
    std::chrono::milliseconds patience{0};
    /// Called once if the lock was lost. Called by another thread.
    std::function<void()> onLost = [] {
    };
    /// Called if the lock can't be removed at the end, with the reason.
    std::function<void(const Krt::Exception::YError& error)> onLeft = [](const Krt::Exception::YError&) {
    };
    /// Between writing the lock and looking for locks that were written meanwhile.
    std::chrono::milliseconds settling{200};
    /// Before a lock that can't be read is read again; the second and the third wait are twice the one
    /// before.
    std::chrono::milliseconds unreadableWait{std::chrono::seconds(5)};
    /// Between refreshments.
    std::chrono::milliseconds refreshInterval{std::chrono::minutes(5)};
    /// Without a refreshment for this long, as after a standby, the lock may have been removed by others.
    std::chrono::milliseconds expiry{std::chrono::milliseconds(22 * 60 * 1000 + 30 * 1000)};
};

class RepositoryLock
{
public:
    /// Locks the repository, which outlives this object. Raises LockedError if another process has a lock
    /// that excludes this one, and InvalidState if the user interrupts. Raises what the repository raises.
    RepositoryLock(const Repo::Repository& repository, LockSettings settings);
    /// Removes the lock. A failure is logged and given to `onLeft`: other processes then need `unlock`.
    ~RepositoryLock();
    RepositoryLock(const RepositoryLock&) = delete;
    RepositoryLock& operator=(const RepositoryLock&) = delete;

    /// Verifies that the lock was not lost, so that the caller may write to the repository. Any thread. If
    /// the lock was not refreshed for too long, as after a standby, it is refreshed now. Raises LockLost
    /// if it was lost.
    void RequireFresh();

private:
    // When the lock was refreshed. Of two clocks, since one stops during a standby, and the other can be set.
    struct Instant
    {
        std::chrono::system_clock::time_point calendar = std::chrono::system_clock::now();
        std::chrono::steady_clock::time_point steady = std::chrono::steady_clock::now();

        std::chrono::milliseconds Age() const;
    };

    void AcquireWithPatience();
    void Acquire();
    void CheckOthers(const Repo::Id* own) const;
    std::optional<Repo::Lock> ReadLock(const Repo::FileName& file) const;
    void KeepRefreshed();
    void RefreshOrLose() KRT_REQUIRES(m_mutex);
    bool Refresh(bool isExpired) KRT_REQUIRES(m_mutex);

    const Repo::Repository& m_repository;
    LockSettings m_settings;
    IgnoringHangUps m_ignoring;
    Repo::Lock m_lock;
    Repo::Id m_id;
    Krt::Thread::AnnotatedMutex m_mutex; // also for m_id and m_lock, once the constructor has ended
    std::condition_variable m_end;
    Instant m_refreshed KRT_GUARDED_BY(m_mutex);
    bool m_isLost KRT_GUARDED_BY(m_mutex) = false;
    bool m_isEnding KRT_GUARDED_BY(m_mutex) = false;
    std::thread m_refresher;
};

/// For a process without a lock: raises LockedError if there is one, also that of a process that has died.
void RequireNoLock(const Repo::Repository& repository);

/// Sleeps, and raises InvalidState as soon as the user interrupts.
void SleepUnlessInterrupted(std::chrono::milliseconds time);

} // namespace Agent
