// What commands that create snapshots in repositories print: lines for people, and the JSON documents that
// restic prints.
#pragma once

#include "agent/Backup/NewSnapshot.h"

#include <string>

namespace Agent {

/// The last lines of a summary: what was added, how fast, and the snapshot.
std::string AddedText(const SnapshotSettings& settings, const SnapshotOutcome& outcome);
/// The summary as a document.
std::string SummaryJson(const SnapshotSettings& settings, const SnapshotOutcome& outcome);
/// What was done so far. Members that are 0 or empty are left out, as restic does.
std::string StatusJson(const SnapshotProgress& progress);
/// What became of a file or directory, as a line such as "modified  /a/f (22 B added)". Printable.
std::string StoredText(const StoredItem& item);
/// What became of a file or directory.
std::string StoredJson(const StoredItem& item);
/// The end of the scan.
std::string ScanJson(const ScanTotals& totals);

} // namespace Agent
