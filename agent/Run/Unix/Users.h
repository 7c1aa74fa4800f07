// Platform-specific questions about the users that can act, and about access lists.
#pragma once

#include "Krt/File/YDirectory.h"

#include <sys/stat.h>

namespace Agent {

/// True if users other than this one can act where this process runs. False in a user namespace with one user
/// only: the namespace's creator has the same rights without its root.
bool AreThereOtherUsers();

/// True if an access list may let other users write to the entry, whatever the group's bits of its mode
/// allow. `name` is "." for the directory itself; no symlink is followed. True if the list cannot be read.
bool MayListLetWrite(const Krt::File::YDirectory& directory, const Krt::YString& name,
                     const struct stat& status);

} // namespace Agent
