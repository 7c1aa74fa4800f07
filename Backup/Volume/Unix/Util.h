#pragma once

/// @file
/// Volume discovery: the mount of a path, a volume's identity, the class of its file system, and whether it
/// is read-only. A volume's identity is its unique path: the source that its mount names, such as a device
/// node. Nothing is cached. Each call makes two stat calls for each directory level and reads the mount
/// table once. Any thread may call. There is no protection against a mount that changes between two system
/// calls of one function.

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

/// Returns the class of the file system type with this exact name, or DRIVE_CLASS_UNKNOWN for an unknown
/// name.
BACKUP_API unsigned int ClassifyFilesystemType(const YString& type);

/// Returns the mount point of the file system that contains the path. Walks up until the device changes.
/// Symlinks are followed. For a path that does not exist, returns the mount point of its deepest existing
/// ancestor. Raises InvalidState for the empty path and the system's error of a failed stat.
BACKUP_API Krt::File::YPath GetVolumePathName(const Krt::File::YPath& path);

/// Returns the unique path of the volume that contains the path. Raises NotFound if its mount is not
/// listed, and the errors of GetVolumePathName.
BACKUP_API Krt::File::YPath GetVolumeUniquePath(const Krt::File::YPath& path);

/// Returns the class of the first mount with this unique path, or DRIVE_CLASS_UNKNOWN if there is no such
/// mount. The unique path "/special" is DRIVE_CLASS_SPECIAL.
BACKUP_API unsigned int DetermineDriveType(const Krt::File::YPath& uniquePath);

/// Returns one pair for each mount of the unique path. All pairs are equal: the mount path that contains
/// `path`, and the unique path of the volume that contains this mount point. For "/" that is its own
/// volume. Raises the errors of GetVolumeUniquePath.
BACKUP_API std::vector<std::pair<Krt::File::YPath, Krt::File::YPath>>
DetermineVolumeMountPaths(const Krt::File::YPath& uniquePath, const Krt::File::YPath& path);

/// Returns true if the path is on another device than its parent directory. Makes two stat calls and does
/// not read the mount table. Logs and raises the system's error if either call fails.
BACKUP_API bool IsMountPoint(const Krt::File::YPath& path);

/// Returns true if the mount that contains the path is read-only; false if it is not listed. Raises the
/// errors of GetVolumePathName.
BACKUP_API bool IsReadOnly(const Krt::File::YPath& path);

} // namespace Backup::Volume
