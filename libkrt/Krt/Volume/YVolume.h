#pragma once

#include "Krt/Export.h"
#include "Krt/File/YPath.h"

namespace Krt::Volume {

/// The volume that contains a path. Each call asks the operating system. Any thread.
class KRT_API YVolume
{
public:
    /// The volume that contains `path`. Makes no system call.
    explicit YVolume(const File::YPath& path);
    ~YVolume();

    /// The bytes that an unprivileged user may still write. Raises the operating system's error.
    unsigned long long GetVolumeFreeSpace() const;

private:
    File::YPath m_path;
};

} // namespace Krt::Volume
