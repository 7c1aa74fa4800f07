#pragma once

/// @file
/// The operating system's mount table. Nothing is cached: each call reads it.

#include "Krt/Export.h"
#include "Krt/String/YString.h"

#include <vector>

namespace Krt::Volume {

/// One mount.
struct MountEntry
{
    YString type;      ///< name of the file system's type, such as "ext4"
    YString directory; ///< mount point
    YString source;    ///< the device, export or name that is mounted; may be empty
    bool readOnly;     ///< true if this mount cannot be written
};

/// Returns the mounts that this process sees, in the order of the system's table. Empty if the table cannot
/// be read. Any thread.
KRT_API std::vector<MountEntry> ListMountEntries();

} // namespace Krt::Volume
