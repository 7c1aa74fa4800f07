#include "Krt/Volume/Unix/FreeBlocks.h"

#include <sys/statvfs.h>

namespace Krt::Volume {

int ReadFreeBlocks(const char* path, FreeBlocks& free)
{
    struct statvfs status;
    const int result = statvfs(path, &status);
    if (result == 0)
        free = {status.f_bavail, status.f_frsize};
    return result;
}

} // namespace Krt::Volume
