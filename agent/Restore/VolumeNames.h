// VolumeNames: which volume each directory of the target stands for. Two volumes whose names differ only in
// characters that no directory's name has, such as C: and C, would share one, and their files would take each
// other's places.
#pragma once

#include "agent/Restore/Place.h"

#include <map>

namespace Agent {

class VolumeNames
{
public:
    /// The name of another volume that an earlier path put into the directory of this path's volume; empty if
    /// there is none. `place` is where the path goes.
    Krt::YString FindOther(const Backup::YJobPath& path, const Place& place);

private:
    std::map<Place, Krt::YString> m_names; // by the volume's directory
};

} // namespace Agent
