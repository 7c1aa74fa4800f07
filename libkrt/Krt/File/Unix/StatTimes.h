// The times of a status to the nanosecond, whose members every system names in its own way.
#pragma once

#include <sys/stat.h>

namespace Krt::File {

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
