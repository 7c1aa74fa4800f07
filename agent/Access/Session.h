// Session: a repository that a command has found, opened with a password, and locked.
#pragma once

#include "agent/Access/RepositoryLock.h"
#include "agent/Access/RepositoryOptions.h"
#include "agent/Access/WatchedBackend.h"
#include "agent/Remote/CachedBackend.h"
#include "agent/Repository/Repository.h"
#include "agent/Run/Report.h"

#include <memory>
#include <optional>
#include <string>

namespace Agent {

/// Returns the backend of the repository that the options name: a directory, as a path or "local:" and a
/// path, or a server (see agent/Remote/Location.h). Nothing is accessed yet but files with credentials. A
/// password in an argument is reported. Raises NotSupported for any other address, and what FindLocation and
/// MakeRemoteBackend raise. The address is not in the message, since it may contain a password.
std::shared_ptr<Repo::IBackend> BackendOf(const RepositoryOptions& options, Report& report);

/// Reports a file that can't be read, or can't be removed, as a failure of the repository, with its path
/// once. `meaning` begins the text. For a damaged snapshot, HintOf ends it.
void ReportFailure(Report& report, const Repo::FileName& file, const Repo::RepositoryError& error,
                   const std::string& meaning = {});

/// What the user can do about a snapshot that can't be read, as the end of a message; empty if it is not
/// damaged.
std::string HintOf(const Repo::RepositoryError& snapshotError);

/// What a command does with a repository, which decides its lock.
enum class Access
{
    Read,      ///< no file changes. Shared lock, but none if the options forbid it or nothing can be written
    DryRun,    ///< as Read, for a command that would add files
    Append,    ///< files are added, which needs the place of snapshots. Shared lock
    Exclusive, ///< files are added and removed. Exclusive lock
    Recovery   ///< files are removed on a full disk. Writes no lock, and requires that there is none
};

/// Whether a command that writes takes a repository of version 1 of the format.
enum class OldFormat
{
    Refused,
    Accepted
};

/// When a shared lock settles, which takes a fifth of a second.
enum class Settling
{
    AtOnce, ///< in the constructor
    Later   ///< in Settle, before which the command only reads, and reports no failure of the repository. A
            ///< file that is saved settles the lock, too
};

class Session
{
public:
    /// Opens the repository and acquires its lock. A repository that can't be written is read without a lock,
    /// which is reported. Raises
    ///   - UsageError for a repository or a password that is not given, or given twice; and for a command
    ///     that writes without a lock
    ///   - LockedError if another process has a lock that excludes this one
    ///   - NotSupported for a command that writes to version 1 of the format, unless that is accepted
    ///   - what Repository::Open raises, and for Append what RequirePlace raises for snapshots
    /// Operations of the repository raise InvalidState when the user interrupts the program, LockLost when
    /// the lock is lost, and ServerLost when packs can't be read because the server can't be reached.
    Session(const RepositoryOptions& options, Report& report, Access access = Access::Read,
            OldFormat oldFormat = OldFormat::Refused, Settling settling = Settling::AtOnce);

    /// Loads the index. An index file that can't be read is reported as a failure of the repository; blobs
    /// that only it has are missing then. Snapshots are chosen before. Settles the lock at its end, unless
    /// that is to be later, and before it reports.
    void LoadIndex(Settling settling = Settling::AtOnce);

    /// Settles a lock that was to do so later. Raises LockedError if another process has a lock that excludes
    /// this one.
    void Settle();
    /// Does what Settle does, if the lock needs no more time for that. To be called often until Settle.
    void SettleIfDue();

    /// Finds packs that are lost, of which one is reported. What a backup needs of them is saved again.
    /// Settles the lock before it reports.
    void FindLostPacks();

    Repo::Repository& GetRepository() { return *m_repository; }
    const RepositoryOptions& GetOptions() const { return m_options; }
    Report& GetReport() { return m_report; }
    /// Returns true if the repository is on a server.
    bool IsRemote() const { return m_cache != nullptr; }
    /// How many threads load or save packs at once, if `local` threads do for a repository of this machine.
    unsigned int TransferCount(unsigned int local) const;

private:
    void UseCache();
    void Open();
    void ReportUnknownHint(const std::string& hint);
    void LockFor(Access access, Settling settling);

    RepositoryOptions m_options;
    Report& m_report;
    std::shared_ptr<Remote::CachedBackend> m_cache; // null for a directory of this machine
    std::shared_ptr<WatchedBackend> m_backend;
    std::optional<Repo::Repository> m_repository;
    std::optional<RepositoryLock> m_lock;
};

} // namespace Agent
