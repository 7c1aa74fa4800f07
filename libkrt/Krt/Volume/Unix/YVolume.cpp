#include "Krt/Volume/YVolume.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Retry.h"

#include <sys/statvfs.h>

namespace Krt::Volume {

YVolume::YVolume(const File::YPath& path) : m_path(path) {}

YVolume::~YVolume() = default;

unsigned long long YVolume::GetVolumeFreeSpace() const
{
    struct statvfs status;
    if (Util::RetryOnInterrupt([&] { return statvfs(m_path.CStr(), &status); }) != 0)
        KRT_RAISE_OS("Failed to get the free space of: " << m_path);
    // The block counts are in units of the fragment size, and may be 32 bits wide.
    return static_cast<unsigned long long>(status.f_bavail) * status.f_frsize;
}

} // namespace Krt::Volume
