// RepositoryBackup: a backup into a repository, from the job to the snapshot file.
#pragma once

#include "agent/Access/RepositoryOptions.h"
#include "agent/Backup/SnapshotRun.h"
#include "agent/Repository/Snapshot.h"

#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// What a user asks for.
struct BackupSettings
{
    RepositoryOptions repository;
    std::string jobFile;            ///< empty without one
    std::vector<std::string> paths; ///< as typed
    std::string host;               ///< empty for that of this machine
    std::vector<std::string> tags;
    std::optional<Repo::Timestamp> time; ///< of the snapshot; otherwise that of the beginning
    std::string parent;                  ///< first digits of an id, or "latest"; empty for the default
    bool isForced = false;               ///< everything is read, without a parent
    bool skipsIfUnchanged = false;       ///< no snapshot is created if its tree is that of the parent
    bool isDryRun = false;               ///< nothing is written
    bool ignoresChangeTime = false;
    bool ignoresInode = false;
    unsigned int readers = 2;
    Repo::SaveOptions save;
};

/// What a backup did.
struct BackupOutcome
{
    SnapshotCounts counts;
    Repo::Timestamp begin;
    Repo::Timestamp end;
    double seconds = 0;             ///< how long it took
    std::optional<Repo::Id> parent; ///< with which entries were compared
    std::optional<Repo::Id> id;     ///< of the snapshot; nothing if none was created
    std::uint64_t failed = 0;       ///< entries
};

/// Called about 10 times a second.
using BackupProgress = std::function<void(const SnapshotCounts& counts, std::uint64_t failed)>;

/// Stores a snapshot. Entries that fail are reported. Raises, without a snapshot,
///   - InvalidArgument if none of the paths exists, or nothing was stored
///   - InvalidState if the user interrupts
///   - what Session, LoadJob and BlobSaver raise
/// What was stored before is durable or unused, and the repository is sound.
BackupOutcome BackUp(const BackupSettings& settings, Report& report, const BackupProgress& onProgress);

/// The summary in lines.
std::string SummaryText(const BackupSettings& settings, const BackupOutcome& outcome);
/// The summary as restic prints it as JSON.
std::string SummaryJson(const BackupSettings& settings, const BackupOutcome& outcome);
/// A line on the progress as restic prints it as JSON. `seconds` since the beginning.
std::string StatusJson(const SnapshotCounts& counts, std::uint64_t failed, double seconds);

} // namespace Agent
