// The text that describes one entry of a snapshot to people.
#pragma once

#include "agent/Store/Snapshot.h"

#include <string>

namespace Agent {

/// Returns "-rw-r--r--  0:0  1234  2001-02-03T04:05:06Z  /path" and a line end, printable. A symlink's target
/// follows after "->", and a device has its numbers instead of a size. A Windows entry has its attributes
/// instead of a mode, and a line for each of its paths, which are those of a restore. A field that the record
/// lacks is shown as "-". Raises a YError for a record that cannot be read.
std::string EntryText(const SnapshotEntry& entry);

} // namespace Agent
