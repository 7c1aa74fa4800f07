// VolumeNames: the volume for which each directory of the target was created. Two volumes whose names differ
// only in characters that a directory's name cannot have, such as C: and C, share a directory, and their
// files would replace each other.
#pragma once

#include "agent/Restore/TargetLocation.h"

#include <map>

namespace Agent {

class VolumeNames
{
public:
    /// Returns the name of another volume that an earlier path put into the directory of this path's volume,
    /// or an empty string. `location` is that of the path.
    Krt::YString FindOther(const Backup::YJobPath& path, const TargetLocation& location);

private:
    std::map<TargetLocation, Krt::YString> m_names; // by the volume's directory
};

} // namespace Agent
