#include "Krt/Volume/YVolume.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Volume/Unix/FreeBlocks.h"

#include <limits>

namespace Krt::Volume {

YVolume::YVolume(const File::YPath& path) : m_path(path) {}

YVolume::~YVolume() = default;

unsigned long long YVolume::GetVolumeFreeSpace() const
{
    FreeBlocks free;
    KRT_SYSCALL(ReadFreeBlocks(m_path.CStr(), free), "Failed to get the free space of: " << m_path);
    // Some file systems without a limit report a block count whose number of bytes overflows.
    constexpr unsigned long long most = std::numeric_limits<unsigned long long>::max();
    return free.size != 0 && free.count > most / free.size ? most : free.count * free.size;
}

} // namespace Krt::Volume
