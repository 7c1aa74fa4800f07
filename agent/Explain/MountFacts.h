// What a mount point is, as the descent policy sees it.
#pragma once

#include "Krt/File/YPath.h"

#include <optional>
#include <string>

namespace Agent {

/// Returns the word for a DriveClass: fixed, removable, network, special, rootfs or unknown.
const char* DriveClassWord(unsigned int driveClass);

struct MountFacts
{
    std::string driveClass; ///< the word of its class
    std::string type;       ///< of the file system; empty if the mount table does not have the source
    std::string source;     ///< the unique path of its volume
};

/// What the whole file system of a mount contains, by its own account.
struct MountUsage
{
    std::optional<unsigned long long> inodes; ///< not if the file system does not count them
    unsigned long long bytes = 0;             ///< in use
};

/// Returns nothing if the mount's source cannot be found.
std::optional<MountFacts> FindMountFacts(const Krt::File::YPath& mountPoint);

/// Returns nothing for the trigger of an automounter, and for a file system that does not answer in time.
/// Raises InvalidState if the user interrupts.
std::optional<MountUsage> FindMountUsage(const Krt::File::YPath& mountPoint, const MountFacts& facts);

} // namespace Agent
