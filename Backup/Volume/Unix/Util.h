// Volume discovery: which mount a path belongs to, what the volume's identity is, of which class its file
// system is, whether it is read-only. A volume's identity is its unique path, the source that its mount
// names, such as a device node. Nothing is cached: every call asks the operating system, at two stat calls a
// directory level and one reading of the mount table. Any thread may call; a mount that changes between two
// system calls of one function isn't guarded against.
#pragma once

#include "Backup/Export.h"
#include "Krt/File/YPath.h"

#include <utility>
#include <vector>

namespace Backup::Volume {

/// Classes of volumes by the type of their file system.
enum DriveClass : unsigned int
{
    DRIVE_CLASS_UNKNOWN = 0,
    DRIVE_CLASS_REMOVABLE = 2,
    DRIVE_CLASS_FIXED = 3, ///< the only class that is backed up and walked into by default
    DRIVE_CLASS_NETWORK = 4,
    DRIVE_CLASS_SPECIAL = 7,
    DRIVE_CLASS_ROOTFS = 8
};

/// A run of equal pairs in a list of mount paths.
struct MountPath
{
    Krt::File::YPath path;   ///< where the volume is mounted
    Krt::File::YPath holder; ///< the unique path of the volume that contains the mount point
    unsigned int count;      ///< how many times in succession the list contains the pair
};

/// The class of a file system type's exact name; DRIVE_CLASS_UNKNOWN for a name that isn't known.
BACKUP_API unsigned int ClassifyFilesystemType(const YString& type);

/// The mount point that holds the path, found by climbing until the device changes. Links are followed; a
/// path that doesn't exist is answered by its deepest ancestor that does. Raises InvalidState for the empty
/// path and the system's error of a failed stat.
BACKUP_API Krt::File::YPath GetVolumePathName(const Krt::File::YPath& path);

/// The unique path of the volume that holds the path. Raises NotFound if its mount isn't listed, and what
/// GetVolumePathName raises.
BACKUP_API Krt::File::YPath GetVolumeUniquePath(const Krt::File::YPath& path);

/// The class of the first mount with this unique path; DRIVE_CLASS_UNKNOWN if there is none.
BACKUP_API unsigned int DetermineDriveType(const Krt::File::YPath& uniquePath);

/// For each mount of the unique path, in the table's order, one pair: the mount path that holds `path`, and
/// the unique path of the volume on which that mount point stands, which for "/" is its own. Raises as
/// GetVolumeUniquePath.
BACKUP_API std::vector<std::pair<Krt::File::YPath, Krt::File::YPath>>
DetermineVolumeMountPaths(const Krt::File::YPath& uniquePath, const Krt::File::YPath& path);

/// Whether the path lies on another device than its parent: two stat calls, no look at the mount table. Logs
/// and raises the system's error when either fails.
BACKUP_API bool IsMountPoint(const Krt::File::YPath& path);

/// Whether the mount that holds the path is read-only; false if it isn't listed. Raises as GetVolumePathName.
BACKUP_API bool IsReadOnly(const Krt::File::YPath& path);

} // namespace Backup::Volume
