// RepositoryLock: keeps a lock file in a repository while a command uses it. Locks that are not exclusive may
// exist at the same time. An exclusive lock excludes all others. Age is not considered: the lock of a process
// that has died excludes others until `unlock` removes it.
#pragma once

#include "agent/Repository/Lock.h"
#include "agent/Repository/Repository.h"
#include "agent/Run/Interrupt.h"

#include "Krt/Thread/ThreadSafety.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <optional>
#include <thread>
#include <vector>

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
    /// Called once, before the first wait for another lock, with the error that would have been raised.
    std::function<void(const LockedError& error)> onWait = [](const LockedError&) {
    };
    /// Called once if the lock was lost. Called by another thread.
    std::function<void()> onLost = [] {
    };
    /// Called if the lock, or one that it has replaced, may remain after the end, with the reason.
    std::function<void(const Krt::Exception::YError& error)> onLeft = [](const Krt::Exception::YError&) {
    };
    /// Between writing the lock and looking for locks that were written meanwhile.
    std::chrono::milliseconds settling{200};
    /// The constructor looks for other locks at once, but does not wait for that time, during which the
    /// caller only reads: it calls Settle. Without effect with patience, and for an exclusive lock.
    bool settlesLater = false;
    /// Before a lock that can't be read is read again; the second and the third wait are twice the one
    /// before.
    std::chrono::milliseconds unreadableWait{std::chrono::seconds(5)};
    /// Between refreshments.
    std::chrono::milliseconds refreshInterval{std::chrono::minutes(5)};
    /// Without a refreshment for this long, as after a standby, the lock may have been removed by others.
    /// They do that after 30 minutes of their clocks, which may be ahead by ten.
    std::chrono::milliseconds expiry{std::chrono::milliseconds(17 * 60 * 1000 + 30 * 1000)};
};

/// The lock can be relied on while it is settled, is not lost, and was refreshed within `expiry`: other
/// processes have seen its file, or one that replaces it, and do not remove it yet. These three facts are
/// atomic. So a caller waits for the requests that settle or refresh the lock, during which the mutex is
/// held, only if one of the facts is missing.
class RepositoryLock
{
public:
    /// Locks the repository, which outlives this object. Raises LockedError if another process has a lock
    /// that excludes this one, InvalidState if the user interrupts, and Failure::Backend if the repository
    /// does not list the lock. Raises what the repository raises.
    RepositoryLock(const Repo::Repository& repository, LockSettings settings);
    /// Removes the lock, and those that it has replaced and that could not be removed. A failure is logged
    /// and given to `onLeft`: other processes then need `unlock`.
    ~RepositoryLock();
    RepositoryLock(const RepositoryLock&) = delete;
    RepositoryLock& operator=(const RepositoryLock&) = delete;

    /// Waits for the rest of the settling, unless that is over, and looks for other locks then. Any thread.
    /// Raises LockedError and InvalidState as the constructor does.
    void Settle();
    /// Does what Settle does, if the rest of the settling is over. Otherwise without effect.
    void SettleIfDue();
    /// Verifies that the lock can be relied on, so that the caller may write to the repository. Any thread.
    /// If the lock was not refreshed for too long, as after a standby, it is refreshed now. Settles a lock
    /// that is not settled. Raises LockLost if it was lost.
    void RequireFresh();
    /// Returns true if the lock was not refreshed for too long, so that RequireFresh would do that, or raise.
    /// Any thread. Waits for nothing.
    bool HasExpired() const { return Age() > m_settings.expiry; }

private:
    // Of two clocks, since one stops during a standby, and the other can be set.
    struct Instant
    {
        std::chrono::system_clock::time_point calendar = std::chrono::system_clock::now();
        std::chrono::steady_clock::time_point steady = std::chrono::steady_clock::now();
    };

    void AcquireWithPatience();
    void Acquire();
    bool IsReliable() const { return m_isSettled && !m_isLost && !HasExpired(); }
    void SettleNow() KRT_REQUIRES(m_mutex);
    void CheckOthers(const Repo::Id* own);
    const Repo::Lock* ReadLock(const Repo::FileName& file);
    bool IsGone(const Repo::FileName& file, const Repo::RepositoryError& error) const;
    void KeepRefreshed();
    void RefreshOrLose() KRT_REQUIRES(m_mutex);
    bool Refresh() KRT_REQUIRES(m_mutex);
    void NoteRefreshed(const Instant& time);
    std::chrono::milliseconds Age() const;
    void RemoveAll();

    const Repo::Repository& m_repository;
    LockSettings m_settings;
    IgnoringHangUps m_ignoring;
    Repo::Lock m_lock;
    bool m_hasWaited = false; // because of another lock
    Repo::Id m_id;
    std::vector<Repo::Id> m_replaced;        // that the store did not remove
    std::map<Repo::Id, Repo::Lock> m_others; // that were read; a lock never changes
    Krt::Thread::AnnotatedMutex
        m_mutex; // also for m_id, m_replaced and m_lock, once the constructor has ended
    std::condition_variable m_end;
    std::chrono::steady_clock::time_point m_settlesAt;
    // What callers rely on without the mutex, with which these change once the constructor has ended.
    std::atomic<bool> m_isSettled{false};
    std::atomic<bool> m_isLost{false}; // for good
    // When the lock was refreshed.
    std::atomic<std::chrono::system_clock::time_point> m_refreshedByCalendar{Instant().calendar};
    std::atomic<std::chrono::steady_clock::time_point> m_refreshedBySteady{Instant().steady};
    bool m_isEnding KRT_GUARDED_BY(m_mutex) = false;
    std::thread m_refresher;
};

/// For a process without a lock: raises LockedError if there is one, also that of a process that has died.
void RequireNoLock(const Repo::Repository& repository);

/// Sleeps, and raises InvalidState as soon as the user interrupts.
void SleepUnlessInterrupted(std::chrono::milliseconds time);

} // namespace Agent
