#include "agent/Access/RepositoryLock.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Access/Unix/Process.h"
#include "agent/Access/WatchedBackend.h"
#include "agent/Http/Shortened.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Host.h"
#include "Krt/Log/LogSite.h"

#include <algorithm>
#include <new>
#include <utility>

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
    text += " since " + LocalTime(lock.time) + ", " +
            (age < 60 ? "less than a minute"
                      : CountText(static_cast<unsigned long long>(age / 60), "minute", "minutes")) +
            " ago";
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
    for (const Repo::Id& id : repository.ListIds(FileKind::Lock)) {
        const FileName file{FileKind::Lock, id};
        std::string owner;
        try {
            owner = " " + Describe(Lock::Parse(repository.LoadText(file)));
        } catch (const RepositoryError& error) {
            if (error.GetFailure() == Repo::Failure::Missing)
                continue; // removed meanwhile
        }
        RaiseLocked(file, "The repository is locked" + owner +
                              ". If no process uses it, remove its locks with 'kbagent unlock'");
    }
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
    m_settings.settlesLater =
        m_settings.settlesLater && !m_settings.isExclusive && m_settings.patience == milliseconds(0);
    AcquireWithPatience();
    m_isSettled = !m_settings.settlesLater;
    NoteRefreshed({});
    try {
        m_refresher = std::thread([this] { KeepRefreshed(); });
    } catch (...) {
        RemoveAll();
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
    RemoveAll();
}

// Reports the first failure alone.
void RepositoryLock::RemoveAll()
{
    try {
        std::optional<Krt::Exception::YError> failure;
        m_replaced.insert(m_replaced.begin(), m_id);
        for (const Repo::Id& lock : m_replaced) {
            try {
                m_repository.GetBackend().Remove({FileKind::Lock, lock});
            } catch (const Krt::Exception::YError& error) {
                KRT_LOG_FREE(Krt::MessageType::General,
                             "Failed to remove the lock of the repository: " << error);
                if (!failure)
                    failure = error;
            }
        }
        if (failure)
            m_settings.onLeft(*failure);
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
        } catch (const LockedError& error) {
            const auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now());
            if (left <= milliseconds(0))
                throw;
            if (!std::exchange(m_hasWaited, true))
                m_settings.onWait(error);
            SleepUnlessInterrupted(std::min(Http::Shortened(wait), left));
        }
    }
}

void RepositoryLock::Acquire()
{
    CheckOthers(nullptr);
    m_lock.time = Repo::Timestamp::Now();
    try {
        m_repository.SaveText(FileKind::Lock, m_lock.ToJson(), m_id);
    } catch (const Krt::Exception::YError& error) {
        if (IsInterrupted() || error.GetOsError() == 0) // otherwise the lock was refused
            RemoveAll();
        m_replaced.clear();
        throw;
    }
    m_settlesAt = steady_clock::now() + m_settings.settling;
    try {
        // A process that wants to exclude this one and looks from now on finds the lock. So what is read
        // while it settles is not outdated by a process that had the repository before.
        if (!m_settings.settlesLater)
            SleepUnlessInterrupted(m_settings.settling);
        CheckOthers(&m_id);
    } catch (...) {
        RemoveAll();
        m_replaced.clear();
        throw;
    }
}

void RepositoryLock::Settle()
{
    if (m_isSettled)
        return;
    const AnnotatedLock lock(m_mutex);
    SettleNow();
}

void RepositoryLock::SettleIfDue()
{
    if (!m_isSettled && steady_clock::now() >= m_settlesAt)
        Settle();
}

void RepositoryLock::SettleNow()
{
    if (m_isSettled)
        return;
    const auto left = std::chrono::ceil<milliseconds>(m_settlesAt - steady_clock::now());
    SleepUnlessInterrupted(std::max(left, milliseconds(0)));
    CheckOthers(&m_id);
    m_isSettled = true;
}

void RepositoryLock::CheckOthers(const Repo::Id* own)
{
    const std::vector<Repo::Id> ids = m_repository.ListIds(FileKind::Lock);
    REPOSITORY_RAISE_UNLESS(
        own == nullptr || std::find(ids.begin(), ids.end(), *own) != ids.end(), Repo::Failure::Backend,
        FileName({FileKind::Lock, *own}).Prefix()
            << "the lock of this process is not listed: the store lists files late, which "
               "is not supported, or another process has removed the lock");
    for (const Repo::Id& id : ids) {
        if (own != nullptr && id == *own)
            continue;
        const FileName file{FileKind::Lock, id};
        const Lock* const lock = ReadLock(file);
        if (lock == nullptr || (!lock->isExclusive && !m_lock.isExclusive))
            continue;
        const bool hasDied = lock->hostname == m_lock.hostname && !DoesProcessExist(lock->pid);
        RaiseLocked(file,
                    "The repository is locked " + Describe(*lock) +
                        (m_hasWaited ? ", also after the time of --retry-lock" : "") +
                        (hasDied ? ". PID " + std::to_string(lock->pid) +
                                       " has died; 'kbagent unlock' removes its lock"
                                 : ". If that process has died, remove its lock with 'kbagent unlock'"));
    }
}

// Returns true if a lock that can't be read is that of a process that has ended.
bool RepositoryLock::IsGone(const FileName& file, const RepositoryError& error) const
{
    try {
        return error.GetFailure() == Repo::Failure::Missing || m_repository.GetBackend().Size(file) == 0;
    } catch (const RepositoryError& next) {
        return next.GetFailure() == Repo::Failure::Missing;
    }
}

// Reads the lock of another process, which may be writing it. Returns null for the lock of a process that has
// ended.
const Lock* RepositoryLock::ReadLock(const FileName& file)
{
    if (const auto known = m_others.find(file.id); known != m_others.end())
        return &known->second;
    constexpr int MostWaits = 3;
    milliseconds wait = m_settings.unreadableWait;
    for (int waits = 0;; ++waits, wait *= 2) {
        try {
            return &m_others.emplace(file.id, Lock::Parse(m_repository.LoadText(file))).first->second;
        } catch (const RepositoryError& error) {
            if (IsGone(file, error))
                return nullptr;
            if (waits == MostWaits)
                RaiseLocked(file, "A lock of the repository can't be read: " + error.GetMessage().Bytes() +
                                      ". If no process uses the repository, remove it with 'kbagent unlock "
                                      "--remove-all'. --no-lock reads the repository without a lock");
        }
        SleepUnlessInterrupted(wait);
    }
}

void RepositoryLock::NoteRefreshed(const Instant& time)
{
    m_refreshedByCalendar = time.calendar;
    m_refreshedBySteady = time.steady;
}

milliseconds RepositoryLock::Age() const
{
    const Instant now;
    const auto age = std::max<std::chrono::nanoseconds>(now.calendar - m_refreshedByCalendar.load(),
                                                        now.steady - m_refreshedBySteady.load());
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
        if (!m_isLost && Age() >= m_settings.refreshInterval)
            RefreshOrLose();
        if (m_isLost)
            return;
    }
}

void RepositoryLock::RequireFresh()
{
    if (IsReliable())
        return;
    const AnnotatedLock lock(m_mutex);
    SettleNow();
    if (!m_isLost && HasExpired())
        RefreshOrLose();
    if (!m_isLost)
        return;
    RaiseIfInterrupted();
    throw LockLost("The lock of the repository was lost, so nothing more is written");
}

// A failure to refresh, also for lack of memory, does no harm until the lock has expired.
void RepositoryLock::RefreshOrLose()
{
    bool isLost = true;
    try {
        try {
            isLost = !Refresh();
            // The store may have taken so long for the lock that others can remove it by now.
            if (!isLost && HasExpired())
                isLost = !Refresh();
        } catch (const Krt::Exception::YError& error) {
            KRT_LOG_FREE(Krt::MessageType::General, "Failed to refresh the repository's lock: " << error);
            isLost = HasExpired();
        }
    } catch (const std::bad_alloc&) {
        // The thread that refreshes must not end the process, which would leave the lock.
        isLost = HasExpired();
    }
    m_isLost = isLost;
    if (m_isLost)
        m_settings.onLost();
}

// Returns false if the old lock was removed by another process.
bool RepositoryLock::Refresh()
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
    if (HasExpired() && !isThere())
        return false;
    const Instant begin;
    m_lock.time = Repo::Timestamp::Now();
    Repo::Id renewed;
    try {
        m_repository.SaveText(FileKind::Lock, m_lock.ToJson(), renewed);
    } catch (const Krt::Exception::YError&) {
        m_replaced.push_back(renewed); // it may be stored
        throw;
    }
    if (HasExpired()) { // before, or while the lock was stored
        std::this_thread::sleep_for(m_settings.settling);
        if (!isThere()) {
            m_repository.GetBackend().Remove({FileKind::Lock, renewed});
            return false;
        }
    }
    NoteRefreshed(begin);
    m_replaced.push_back(std::exchange(m_id, renewed));
    // A store that lets nothing be removed does not take the new lock away, so the run goes on.
    std::erase_if(m_replaced, [this](const Repo::Id& lock) {
        try {
            m_repository.GetBackend().Remove({FileKind::Lock, lock});
            return true;
        } catch (const Krt::Exception::YError& error) {
            KRT_LOG_FREE(Krt::MessageType::General, "Failed to remove a replaced lock: " << error);
            return false;
        }
    });
    return true;
}

} // namespace Agent
