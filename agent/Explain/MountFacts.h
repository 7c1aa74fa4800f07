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

/// Returns nothing if the mount's source cannot be found.
std::optional<MountFacts> FindMountFacts(const Krt::File::YPath& mountPoint);

} // namespace Agent
