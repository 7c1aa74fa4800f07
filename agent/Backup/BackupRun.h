// BackupRun: a backup, from the job to the snapshot file.
#pragma once

#include "agent/Backup/FileLists.h"
#include "agent/Backup/NewSnapshot.h"
#include "agent/Walk/EntryFilter.h"

#include <string>
#include <vector>

namespace Agent {

/// What a user asks for.
struct BackupSettings : SnapshotSettings
{
    std::string jobFile;            ///< empty without one
    std::vector<std::string> paths; ///< as typed
    FileLists lists;                ///< files with further paths
    std::string streamPath; ///< standard input is stored as this file, as in "/a/b"; empty for entries
    EntryFilter filter;
    std::vector<std::string> excludes; ///< patterns of the filter that the snapshot notes
    std::string parent;                ///< first digits of an id, or "latest"; empty for the default
    bool isForced = false;             ///< everything is read, without a parent
    bool skipsIfUnchanged = false;     ///< no snapshot is created if its tree is that of the parent
    bool ignoresChangeTime = false;
    bool ignoresInode = false;
    bool scans = false; ///< counts the files first, so that the progress has totals
};

/// Stores a snapshot. Entries that fail are reported. Raises, without a snapshot,
///   - InvalidArgument if none of the paths exists, a list is damaged, or nothing was stored
///   - InvalidState if the user interrupts
///   - what Session, LoadJob and BlobSaver raise
/// What was stored before is durable or unused, and the repository is sound.
SnapshotOutcome BackUp(const BackupSettings& settings, Report& report, ISnapshotObserver& observer);

/// The summary in lines.
std::string SummaryText(const BackupSettings& settings, const SnapshotOutcome& outcome);

} // namespace Agent
