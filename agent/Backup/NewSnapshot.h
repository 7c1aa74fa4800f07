// NewSnapshot: what commands that create snapshots in repositories share: what the user asks for, the
// snapshot file, and what was done.
#pragma once

#include "agent/Access/RepositoryOptions.h"
#include "agent/Backup/Scan.h"
#include "agent/Backup/SnapshotBuild.h"
#include "agent/Repository/Snapshot.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// What a user asks for.
struct SnapshotSettings
{
    RepositoryOptions repository;
    std::string host; ///< empty for that of this machine
    std::vector<std::string> tags;
    std::optional<Repo::Timestamp> time; ///< of the snapshot; otherwise that of the beginning
    bool isDryRun = false;               ///< nothing is written
    bool reportsStored = false;          ///< calls ISnapshotObserver::OnStored
    unsigned int readers = 2;            ///< files that are read at the same time
    Repo::SaveOptions save;
};

/// What was done. It begins when the object is constructed.
struct SnapshotOutcome
{
    SnapshotCounts counts;
    Repo::Timestamp begin = Repo::Timestamp::Now();
    Repo::Timestamp end;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
    double seconds = 0;             ///< how long it took
    std::optional<Repo::Id> parent; ///< the snapshot with which entries were compared
    std::optional<Repo::Id> id;     ///< of the snapshot; nothing if none was created
    std::uint64_t failed = 0;       ///< entries
    std::uint64_t repositoryFailures = 0;
    std::vector<StoredItem> largest; ///< of a dry run: what would add most data, at most MostLargest
    static constexpr std::size_t MostLargest = 5;
};

/// What was done so far.
struct SnapshotProgress
{
    SnapshotCounts counts;
    ScanTotals totals;                     ///< zeros without a scan
    std::uint64_t failed = 0;              ///< entries
    double seconds = 0;                    ///< since the beginning
    std::vector<std::string> currentFiles; ///< those that are being read
};

/// Receives what is done, on the thread that does it.
class ISnapshotObserver
{
public:
    virtual ~ISnapshotObserver() = default;
    /// Called about 10 times a second.
    virtual void OnProgress(const SnapshotProgress& progress) = 0;
    /// A file or directory was stored.
    virtual void OnStored(const StoredItem& item) = 0;
};

/// The content of the snapshot file, without parent, tree, paths, excludes and summary.
Repo::Snapshot MakeSnapshot(const SnapshotSettings& settings, const SnapshotOutcome& outcome);
/// Completes the outcome, and the snapshot by a summary of it. Saves the snapshot if `isSaved` is true; its
/// blobs are durable. Raises InvalidState if the user interrupts, and what saving a file raises.
void FinishSnapshot(Repo::Repository& repository, Repo::Snapshot snapshot, bool isSaved,
                    SnapshotOutcome& outcome);

} // namespace Agent
