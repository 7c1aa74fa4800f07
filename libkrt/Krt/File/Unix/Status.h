#pragma once

/// @file
/// The identity of a file in its status, and its times and device numbers, whose names and headers differ
/// between systems.

#include <compare>

#include <sys/stat.h>
#ifdef __APPLE__
#include <sys/types.h>
#else
#include <sys/sysmacros.h> // makedev, major and minor
#endif

namespace Krt::File {

/// The identity of a file: equal for two statuses of one file, whatever its name. A new file may get the
/// inode number of a deleted one.
struct FileId
{
    FileId() = default;
    explicit FileId(const struct stat& status) : device(status.st_dev), inode(status.st_ino) {}

    auto operator<=>(const FileId&) const = default;

    dev_t device = 0;
    ino_t inode = 0;
};

/// The access time, to the nanosecond.
inline const timespec& AccessTime(const struct stat& status)
{
#ifdef __APPLE__
    return status.st_atimespec;
#else
    return status.st_atim;
#endif
}

/// The modification time, to the nanosecond.
inline const timespec& WriteTime(const struct stat& status)
{
#ifdef __APPLE__
    return status.st_mtimespec;
#else
    return status.st_mtim;
#endif
}

/// The change time of the inode (mode, owner, number of links, content), to the nanosecond.
inline const timespec& ChangeTime(const struct stat& status)
{
#ifdef __APPLE__
    return status.st_ctimespec;
#else
    return status.st_ctim;
#endif
}

} // namespace Krt::File
