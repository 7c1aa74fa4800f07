// In what the systems differ as seen by the guards of files.
#pragma once

#include <string>
#include <sys/stat.h>

namespace Agent {

/// Whether other users than this one can act where this process runs. Not in a user namespace that knows one
/// alone: what root may do there, its maker may do anyway.
bool AreThereOtherUsers();

/// Whether an access list may let somebody write to the entry, whatever its mode says of the group. What
/// can't be looked at counts as such.
bool MayListLetWrite(const std::string& path, const struct stat& status);

} // namespace Agent
