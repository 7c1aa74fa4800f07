#include "Krt/Volume/FileSystemSpace.h"

#include <sys/mount.h>
#include <sys/param.h>

namespace Krt::Volume {

// statvfs counts blocks in 32 bits here, which a large volume exceeds.
Util::OsResult<FileSystemSpace> ReadFileSystemSpace(const char* path)
{
    struct statfs status;
    if (const auto called = Util::CallSystem([&] { return statfs(path, &status); }); !called)
        return {{}, called.error};
    return {
        {status.f_bsize, status.f_blocks, status.f_bfree, status.f_bavail, status.f_files, status.f_ffree},
        0};
}

} // namespace Krt::Volume
