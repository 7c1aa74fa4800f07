// The rule that keeps a walk on the volumes that a backup covers: a mount point below a selected folder is
// entered only if it holds a fixed disk's file system or the configuration lists it.
#pragma once

#include "Backup/Export.h"

namespace Krt::File {
class YPath;
}

namespace Backup::File {

/// Whether a walk may descend into the path. `attributes` is the word of Krt::File::GetAttributes; what isn't
/// known to be a directory is never followed. An ordinary directory costs two stat calls. Any thread.
/// Raises what IsMountPoint raises. Where a mount point can't be classified, raises InvalidArgument with the
/// cause in its text, or answers true if "walkIntoUnknownMountPoints" is configured.
/// "IncludedMountpoints", the exact mount paths to follow whatever they hold, is read once in a process.
BACKUP_API bool IsFollowableDirectoryFromKrtAttributes(const Krt::File::YPath& path, unsigned int attributes);

} // namespace Backup::File
