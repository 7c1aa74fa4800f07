// NewSnapshot: what commands that create snapshots in repositories share: what the user asks for, the
// snapshot file, and what was done.
#pragma once

#include "agent/Access/RepositoryOptions.h"
#include "agent/Backup/SnapshotBuild.h"
#include "agent/Repository/Snapshot.h"

#include <chrono>
#include <functional>
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
    std::optional<Repo::Id> parent; ///< with which entries were compared
    std::optional<Repo::Id> id;     ///< of the snapshot; nothing if none was created
    std::uint64_t failed = 0;       ///< entries
};

/// Called about 10 times a second.
using SnapshotProgress = std::function<void(const SnapshotCounts& counts, std::uint64_t failed)>;

/// The content of the snapshot file, without parent, tree, paths, excludes and summary.
Repo::Snapshot MakeSnapshot(const SnapshotSettings& settings, const SnapshotOutcome& outcome);
/// Completes the outcome, and the snapshot by a summary of it. Saves the snapshot if `isSaved` is true; its
/// blobs are durable. Raises InvalidState if the user interrupts, and what saving a file raises.
void FinishSnapshot(Repo::Repository& repository, Repo::Snapshot snapshot, bool isSaved,
                    SnapshotOutcome& outcome);

/// The last lines of a summary: what was added, how fast, and the snapshot.
std::string AddedText(const SnapshotSettings& settings, const SnapshotOutcome& outcome);
/// The summary as restic prints it as JSON.
std::string SummaryJson(const SnapshotSettings& settings, const SnapshotOutcome& outcome);
/// A line on the progress as restic prints it as JSON. `seconds` since the beginning.
std::string StatusJson(const SnapshotCounts& counts, std::uint64_t failed, double seconds);

} // namespace Agent
