// The one way to the operating system's table of mounts. Nothing is cached: each call asks afresh.
#pragma once

#include "Krt/Export.h"
#include "Krt/String/YString.h"

#include <vector>

namespace Krt::Volume {

/// One mount.
struct MountEntry
{
    YString type;      ///< name of the file system's type, such as "ext4"
    YString directory; ///< where it is mounted
    YString source;    ///< the device, export or name that is mounted; may be empty
    bool readOnly;     ///< whether this mount refuses writes
};

/// The mounts that this process sees, in the order of the system's table; none if the table can't be had. Any
/// thread.
KRT_API std::vector<MountEntry> ListMountEntries();

/// From now on lists the entries of a text file, a line "source directory type options" each; null goes back
/// to the system's table. The name must outlive its use. For tests: no other thread may be listing meanwhile.
KRT_API void SetMountTableForTesting(const char* file);

} // namespace Krt::Volume
