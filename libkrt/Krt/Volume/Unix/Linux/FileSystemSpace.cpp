#include "Krt/Volume/FileSystemSpace.h"

#include <sys/statvfs.h>

namespace Krt::Volume {

Util::OsResult<FileSystemSpace> ReadFileSystemSpace(const char* path)
{
    struct statvfs status;
    if (const auto called = Util::CallSystem([&] { return statvfs(path, &status); }); !called)
        return {{}, called.error};
    return {
        {status.f_frsize, status.f_blocks, status.f_bfree, status.f_bavail, status.f_files, status.f_ffree},
        0};
}

} // namespace Krt::Volume
