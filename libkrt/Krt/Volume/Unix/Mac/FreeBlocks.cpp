#include "Krt/Volume/Unix/FreeBlocks.h"

#include <sys/mount.h>
#include <sys/param.h>

namespace Krt::Volume {

// statvfs counts blocks in 32 bits here, which a large volume exceeds.
int ReadFreeBlocks(const char* path, FreeBlocks& free)
{
    struct statfs status;
    const int result = statfs(path, &status);
    if (result == 0)
        free = {status.f_bavail, status.f_bsize};
    return result;
}

} // namespace Krt::Volume
