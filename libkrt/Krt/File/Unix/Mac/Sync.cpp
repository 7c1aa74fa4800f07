#include "Krt/File/OpenFile.h"
#include "Krt/File/Unix/Arguments.h"

#include <fcntl.h>
#include <unistd.h>

namespace Krt::File {

// fsync leaves the content in the drive's cache here; a file system that can't flush the drive has fsync
// alone.
void Sync(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    if (!Util::CallSystem([&] { return fcntl(descriptor, F_FULLFSYNC); }))
        KRT_SYSCALL(fsync(descriptor), "Failed to sync file");
}

} // namespace Krt::File
