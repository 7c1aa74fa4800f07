// The volume that holds a path, asked afresh at every call. Any thread.
#pragma once

#include "Krt/Export.h"
#include "Krt/File/YPath.h"

namespace Krt::Volume {

class KRT_API YVolume
{
public:
    /// Of any path on it; nothing is asked yet.
    explicit YVolume(const File::YPath& path);
    ~YVolume();

    /// Bytes that a user without privileges may still write there. Raises the operating system's error.
    unsigned long long GetVolumeFreeSpace() const;

private:
    File::YPath m_path;
};

} // namespace Krt::Volume
