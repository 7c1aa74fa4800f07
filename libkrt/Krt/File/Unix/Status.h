// What a status says: which file it describes, and the times and device numbers whose names and headers
// differ between systems.
#pragma once

#include <compare>

#include <sys/stat.h>
#ifdef __APPLE__
#include <sys/types.h>
#else
#include <sys/sysmacros.h> // makedev, major and minor
#endif

namespace Krt::File {

/// Equal for two statuses of one file, whatever the name by which it was reached. The inode number of a
/// deleted file may be given to a new one.
struct FileId
{
    FileId() = default;
    explicit FileId(const struct stat& status) : device(status.st_dev), inode(status.st_ino) {}

    auto operator<=>(const FileId&) const = default;

    dev_t device = 0;
    ino_t inode = 0;
};

/// The times to the nanosecond.
inline const timespec& AccessTime(const struct stat& status)
{
#ifdef __APPLE__
    return status.st_atimespec;
#else
    return status.st_atim;
#endif
}

inline const timespec& WriteTime(const struct stat& status)
{
#ifdef __APPLE__
    return status.st_mtimespec;
#else
    return status.st_mtim;
#endif
}

/// Of the status itself: mode, owner, number of names, and the content's.
inline const timespec& ChangeTime(const struct stat& status)
{
#ifdef __APPLE__
    return status.st_ctimespec;
#else
    return status.st_ctim;
#endif
}

} // namespace Krt::File
