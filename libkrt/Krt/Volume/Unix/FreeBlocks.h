// The system call behind a volume's free space.
#pragma once

namespace Krt::Volume {

/// The blocks that a process without privileges can still fill.
struct FreeBlocks
{
    unsigned long long count = 0;
    unsigned long long size = 0; ///< of a block, in bytes
};

/// Fills `free` for the file system that contains `path` and returns 0; returns -1 with errno otherwise. Not
/// retried on EINTR.
int ReadFreeBlocks(const char* path, FreeBlocks& free);

} // namespace Krt::Volume
