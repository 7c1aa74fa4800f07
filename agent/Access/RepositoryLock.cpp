#include "agent/Access/RepositoryLock.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Access/Unix/Process.h"
#include "agent/Access/WatchedBackend.h"

#include "Krt/Environment/Host.h"
#include "Krt/Log/LogSite.h"

#include <algorithm>
#include <new>

namespace Agent {

using Krt::YString;
using Krt::Thread::AnnotatedLock;
using Repo::FileKind;
using Repo::FileName;
using Repo::Lock;
using Repo::RepositoryError;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds FirstWait{5000};
constexpr milliseconds LongestWait{60000};

std::string Describe(const Lock& lock)
{
    const std::int64_t age = std::max<std::int64_t>(0, Repo::Timestamp::Now().seconds - lock.time.seconds);
    std::string text = lock.isExclusive ? "exclusively" : "";
    text += (text.empty() ? "" : " ") + std::string("by PID ") + std::to_string(lock.pid) + " on " +
            lock.hostname + " by " + lock.username;
    text += " (UID " + std::to_string(lock.uid) + ", GID " + std::to_string(lock.gid) + ")";
    text += " since " + LocalTime(lock.time) + ", " + std::to_string(age / 60) + " minutes ago";
    return text;
}

[[noreturn]] void RaiseLocked(const FileName& file, const std::string& reason)
{
    try {
        KRT_RAISE(Krt::ErrorCode::InvalidState, file.Prefix() << YString(reason));
    } catch (const Krt::Exception::YError& error) {
        throw LockedError(error);
    }
}

} // namespace

void RequireNoLock(const Repo::Repository& repository)
{
    for (const Repo::Id& id : repository.ListIds(FileKind::Lock))
        RaiseLocked({FileKind::Lock, id}, "The repository is locked. If no process uses it, remove its locks "
                                          "with 'kbagent unlock'");
}

void SleepUnlessInterrupted(milliseconds time)
{
    constexpr milliseconds BetweenLooks{100};
    const auto end = steady_clock::now() + time;
    for (auto now = steady_clock::now(); now < end; now = steady_clock::now()) {
        RaiseIfInterrupted();
        std::this_thread::sleep_for(std::min<steady_clock::duration>(BetweenLooks, end - now));
    }
    RaiseIfInterrupted();
}

RepositoryLock::RepositoryLock(const Repo::Repository& repository, LockSettings settings)
    : m_repository(repository), m_settings(std::move(settings))
{
    const ProcessIdentity identity = CurrentProcess();
    m_lock.isExclusive = m_settings.isExclusive;
    m_lock.hostname = Krt::Environment::GetHostName().Bytes();
    m_lock.username = identity.userName;
    m_lock.pid = identity.pid;
    m_lock.uid = identity.uid;
    m_lock.gid = identity.gid;
    AcquireWithPatience();
    m_refreshed = Instant();
    try {
        m_refresher = std::thread([this] { KeepRefreshed(); });
    } catch (...) {
        m_repository.GetBackend().Remove({FileKind::Lock, m_id});
        throw;
    }
}

RepositoryLock::~RepositoryLock()
{
    {
        const AnnotatedLock lock(m_mutex);
        m_isEnding = true;
    }
    m_end.notify_all();
    m_refresher.join();
    try {
        try {
            m_repository.GetBackend().Remove({FileKind::Lock, m_id});
        } catch (const Krt::Exception::YError& error) {
            KRT_LOG_FREE(Krt::MessageType::General, "Failed to remove the lock of the repository: " << error);
            m_settings.onLeft(error);
        }
    } catch (const std::exception&) {
        // The lock stays, and expires.
    }
}

void RepositoryLock::AcquireWithPatience()
{
    const auto end = steady_clock::now() + m_settings.patience;
    for (milliseconds wait = FirstWait;; wait = std::min(2 * wait, LongestWait)) {
        try {
            Acquire();
            return;
        } catch (const LockedError&) {
            const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
            if (left <= milliseconds(0))
                throw;
            SleepUnlessInterrupted(std::min(wait, left));
        }
    }
}

void RepositoryLock::Acquire()
{
    CheckOthers(nullptr);
    m_lock.time = Repo::Timestamp::Now();
    m_id = m_repository.SaveText(FileKind::Lock, m_lock.ToJson());
    try {
        SleepUnlessInterrupted(m_settings.settling);
        CheckOthers(&m_id);
    } catch (...) {
        m_repository.GetBackend().Remove({FileKind::Lock, m_id});
        throw;
    }
}

void RepositoryLock::CheckOthers(const Repo::Id* own) const
{
    for (const Repo::Id& id : m_repository.ListIds(FileKind::Lock)) {
        if (own != nullptr && id == *own)
            continue;
        const FileName file{FileKind::Lock, id};
        const std::optional<Lock> lock = ReadLock(file);
        if (lock && (lock->isExclusive || m_lock.isExclusive))
            RaiseLocked(
                file, "The repository is locked " + Describe(*lock) +
                          (m_settings.patience.count() != 0 ? ", also after the time of --retry-lock" : "") +
                          ". If that process has died, remove its lock with 'kbagent unlock'");
    }
}

// Reads the lock of another process, which may be writing it. Returns nothing for the lock of a process that
// has ended.
std::optional<Lock> RepositoryLock::ReadLock(const FileName& file) const
{
    constexpr int MostWaits = 3;
    milliseconds wait = m_settings.unreadableWait;
    for (int waits = 0;; ++waits, wait *= 2) {
        try {
            if (m_repository.GetBackend().Size(file) == 0)
                return std::nullopt; // its writer died
            return Lock::Parse(m_repository.LoadText(file));
        } catch (const RepositoryError& error) {
            if (error.GetFailure() == Repo::Failure::Missing)
                return std::nullopt; // removed meanwhile
            if (waits == MostWaits)
                RaiseLocked(file, "A lock of the repository can't be read: " + error.GetMessage().Bytes() +
                                      ". If no process uses the repository, remove it with 'kbagent unlock "
                                      "--remove-all'. --no-lock reads the repository without a lock");
        }
        SleepUnlessInterrupted(wait);
    }
}

milliseconds RepositoryLock::Instant::Age() const
{
    const auto age = std::max<std::chrono::nanoseconds>(std::chrono::system_clock::now() - calendar,
                                                        steady_clock::now() - steady);
    return std::chrono::duration_cast<milliseconds>(age);
}

void RepositoryLock::KeepRefreshed()
{
    // Shorter than the time between refreshments, so that a failed one and a standby are noticed.
    const milliseconds betweenLooks = std::min(m_settings.refreshInterval, LongestWait);
    const auto isEnding = [this] {
        m_mutex.AssertHeld();
        return m_isEnding;
    };
    AnnotatedLock lock(m_mutex);
    while (!lock.WaitUntil(m_end, steady_clock::now() + betweenLooks, isEnding)) {
        if (m_refreshed.Age() >= m_settings.refreshInterval)
            RefreshOrLose();
        if (m_isLost)
            return;
    }
}

void RepositoryLock::RequireFresh()
{
    const AnnotatedLock lock(m_mutex);
    if (!m_isLost && m_refreshed.Age() > m_settings.expiry)
        RefreshOrLose();
    if (m_isLost)
        throw LockLost("The lock of the repository was lost, so nothing more is written");
}

// A failure to refresh, also for lack of memory, does no harm until the lock has expired.
void RepositoryLock::RefreshOrLose()
{
    const bool isExpired = m_refreshed.Age() > m_settings.expiry;
    m_isLost = isExpired;
    try {
        try {
            m_isLost = !Refresh(isExpired);
            m_refreshed = Instant();
        } catch (const Krt::Exception::YError& error) {
            KRT_LOG_FREE(Krt::MessageType::General, "Failed to refresh the repository's lock: " << error);
        }
    } catch (const std::bad_alloc&) {
        // The thread that refreshes must not end the process, which would leave the lock.
    }
    if (m_isLost)
        m_settings.onLost();
}

// Returns false if the old lock was removed by another process.
bool RepositoryLock::Refresh(bool isExpired)
{
    const auto isThere = [this] {
        try {
            m_repository.GetBackend().Size({FileKind::Lock, m_id});
            return true;
        } catch (const RepositoryError& error) {
            if (error.GetFailure() != Repo::Failure::Missing)
                throw;
            return false;
        }
    };
    if (isExpired && !isThere())
        return false;
    m_lock.time = Repo::Timestamp::Now();
    const Repo::Id renewed = m_repository.SaveText(FileKind::Lock, m_lock.ToJson());
    if (isExpired) {
        std::this_thread::sleep_for(m_settings.settling);
        if (!isThere()) {
            m_repository.GetBackend().Remove({FileKind::Lock, renewed});
            return false;
        }
    }
    const Repo::Id old = std::exchange(m_id, renewed);
    m_repository.GetBackend().Remove({FileKind::Lock, old});
    return true;
}

} // namespace Agent
