// Session: a repository that a command has found, opened with a password, and locked.
#pragma once

#include "agent/Access/RepositoryLock.h"
#include "agent/Access/RepositoryOptions.h"
#include "agent/Access/WatchedBackend.h"
#include "agent/Repository/Repository.h"
#include "agent/Run/Report.h"

#include <memory>
#include <optional>

namespace Agent {

/// Returns the directory that a location names: a path, or "local:" and a path. Raises NotSupported for any
/// other address. The address is not in the message, since it may contain a password.
std::shared_ptr<Repo::IBackend> BackendOf(const std::string& location);

/// Reports a file that can't be read as a failed entry, with its path once.
void ReportFailure(Report& report, const Repo::FileName& file, const Repo::RepositoryError& error);

class Session
{
public:
    /// Opens the repository for reading. Acquires a shared lock, unless the options forbid it. A
    /// repository that can't be written is used without a lock, which is reported. Raises
    ///   - UsageError for a repository or a password that is not given, or given twice
    ///   - LockedError if another process has an exclusive lock
    ///   - what Repository::Open raises
    /// Reading operations of the repository raise InvalidState when the user interrupts the program, and
    /// LockLost when the lock is lost.
    Session(const RepositoryOptions& options, Report& report);

    /// Loads the index. An index file that can't be read is reported as a failed entry; blobs that only it
    /// has are missing then. Snapshots are chosen before.
    void LoadIndex();

    Repo::Repository& GetRepository() { return *m_repository; }
    const RepositoryOptions& GetOptions() const { return m_options; }
    Report& GetReport() { return m_report; }

private:
    void Open();
    void LockForReading();

    RepositoryOptions m_options;
    Report& m_report;
    std::shared_ptr<WatchedBackend> m_backend;
    std::optional<Repo::Repository> m_repository;
    std::optional<RepositoryLock> m_lock;
};

} // namespace Agent
