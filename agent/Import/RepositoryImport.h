// RepositoryImport: an import into a repository, from the records to the snapshot file.
#pragma once

#include "agent/Backup/NewSnapshot.h"

#include "Backup/Core/YJobPath.h"

#include <string>

namespace Agent {

/// What a user asks for.
struct ImportSettings : SnapshotSettings
{
    std::string contents;  ///< the directory of the contents
    std::string file;      ///< of the records; empty or "-" for standard input
    Backup::YJobPath base; ///< to which the paths of legacy headers are appended
};

/// Stores a snapshot. Records that fail are reported. Raises, without a snapshot,
///   - InvalidArgument if no record was imported
///   - InvalidState if the user interrupts
///   - the operating system's error if the records or the directory of the contents can't be read
///   - what Session and BlobSaver raise
/// What was stored before is durable or unused, and the repository is sound.
SnapshotOutcome ImportRecords(const ImportSettings& settings, Report& report, ISnapshotObserver& observer);

/// The summary in lines.
std::string SummaryText(const ImportSettings& settings, const SnapshotOutcome& outcome);

} // namespace Agent
