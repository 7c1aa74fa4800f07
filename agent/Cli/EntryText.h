// One entry of a snapshot as lines for people.
#pragma once

#include "agent/Store/Snapshot.h"

#include <string>

namespace Agent {

/// "-rw-r--r--  0:0  1234  2001-02-03T04:05:06Z  /path" and a line end, printable. A link's target follows
/// after "->", a device has its numbers for a size. A Windows entry has its attributes for a mode and a line
/// for each of its paths, which are those that a restore gives; what a record lacks is shown as "-".
/// Raises a YError for a record that can't be read.
std::string EntryText(const SnapshotEntry& entry);

} // namespace Agent
