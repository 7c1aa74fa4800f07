#pragma once

/// @file
/// The system call for a volume's free space.

namespace Krt::Volume {

/// The blocks that an unprivileged process can still write.
struct FreeBlocks
{
    unsigned long long count = 0;
    unsigned long long size = 0; ///< size of a block in bytes
};

/// Fills `free` for the file system that contains `path` and returns 0; returns -1 with errno otherwise. Not
/// retried on EINTR.
int ReadFreeBlocks(const char* path, FreeBlocks& free);

} // namespace Krt::Volume
