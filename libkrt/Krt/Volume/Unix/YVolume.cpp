#include "Krt/Volume/YVolume.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Volume/FileSystemSpace.h"

#include <limits>

namespace Krt::Volume {

YVolume::YVolume(const File::YPath& path) : m_path(path) {}

YVolume::~YVolume() = default;

unsigned long long YVolume::GetVolumeFreeSpace() const
{
    const FileSystemSpace space =
        KRT_OS_VALUE(ReadFileSystemSpace(m_path.CStr()), "Failed to get the free space of: " << m_path);
    // Some file systems without a limit report a block count whose number of bytes overflows.
    constexpr unsigned long long most = std::numeric_limits<unsigned long long>::max();
    return space.blockSize != 0 && space.availableBlocks > most / space.blockSize
               ? most
               : space.availableBlocks * space.blockSize;
}

} // namespace Krt::Volume
