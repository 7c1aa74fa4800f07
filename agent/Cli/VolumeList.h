// Lists the machine's mounts, for the volumes command.
#pragma once

#include "Krt/Volume/MountTable.h"

#include <chrono>
#include <optional>
#include <vector>

namespace Agent {

struct ListedVolume
{
    Krt::Volume::MountEntry mount;
    unsigned int driveClass = 0; ///< a DriveClass
    bool isHidden = false;       ///< a later mount covers it
    /// In bytes; not set for a hidden mount, a mount that failed, and a trigger of an automounter.
    std::optional<unsigned long long> freeSpace;
    /// True if a walk enters the directory; not set for a hidden mount and a mount that failed.
    std::optional<bool> isEntered;
    std::optional<Krt::YString> failure; ///< why the mount could not be queried
};

/// Returns every mount of the system's table, in its order. A mount that does not answer within `patience`
/// has failed. Raises a YError if the table cannot be read, or if the user interrupts.
std::vector<ListedVolume> ListVolumes(std::chrono::milliseconds patience);

} // namespace Agent
