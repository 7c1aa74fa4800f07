#include "Krt/Volume/YVolume.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Retry.h"

#include <limits>
#include <sys/statvfs.h>

namespace Krt::Volume {

YVolume::YVolume(const File::YPath& path) : m_path(path) {}

YVolume::~YVolume() = default;

unsigned long long YVolume::GetVolumeFreeSpace() const
{
    struct statvfs status;
    if (Util::RetryOnInterrupt([&] { return statvfs(m_path.CStr(), &status); }) != 0)
        KRT_RAISE_OS("Failed to get the free space of: " << m_path);
    // In units of the fragment size, and maybe 32 bits wide. Some file systems without a limit say so by a
    // count whose bytes no integer holds.
    const unsigned long long count = status.f_bavail, size = status.f_frsize;
    constexpr unsigned long long most = std::numeric_limits<unsigned long long>::max();
    return size != 0 && count > most / size ? most : count * size;
}

} // namespace Krt::Volume
