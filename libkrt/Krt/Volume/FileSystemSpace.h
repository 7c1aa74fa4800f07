#pragma once

/// @file
/// The space of a file system.

#include "Krt/Export.h"
#include "Krt/Util/SystemCall.h"

namespace Krt::Volume {

/// The blocks and inodes of a file system, by its own account.
struct FileSystemSpace
{
    unsigned long long blockSize = 0;       ///< in bytes
    unsigned long long blocks = 0;          ///< all of the file system
    unsigned long long freeBlocks = 0;      ///< not in use
    unsigned long long availableBlocks = 0; ///< what an unprivileged process can still write
    unsigned long long inodes = 0;          ///< all of the file system; 0 if it does not count them
    unsigned long long freeInodes = 0;      ///< not in use
};

/// Returns the space of the file system that contains `path`, or the system's error. Any thread.
KRT_API Util::OsResult<FileSystemSpace> ReadFileSystemSpace(const char* path);

} // namespace Krt::Volume
