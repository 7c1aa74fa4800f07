// The machine's mounts, for the volumes command.
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
    bool isHidden = false;       ///< a later mount lies over it
    /// Bytes; none for a hidden mount, one that failed, and a trigger of an automounter.
    std::optional<unsigned long long> freeSpace;
    /// Whether a walk that comes to the directory enters it; none for a hidden mount and one that failed.
    std::optional<bool> isEntered;
    std::optional<Krt::YString> failure; ///< why the mount can't be asked
};

/// Every mount of the system's table, in its order. One that doesn't answer within `patience` has failed.
/// Raises a YError if there is no table, or the user interrupts.
std::vector<ListedVolume> ListVolumes(std::chrono::milliseconds patience);

} // namespace Agent
