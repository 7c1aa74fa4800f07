#include "Krt/File/OpenFile.h"
#include "Krt/File/Unix/Descriptor.h"
#include "Krt/Util/Retry.h"

#include <fcntl.h>
#include <unistd.h>

namespace Krt::File {

// fsync leaves the content in the drive's cache here; a file system that can't flush the drive has fsync
// alone.
void Sync(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    if (Util::RetryOnInterrupt([&] { return fcntl(descriptor, F_FULLFSYNC); }) < 0 &&
        Util::RetryOnInterrupt([&] { return fsync(descriptor); }) < 0)
        KRT_RAISE_OS("Failed to sync file");
}

} // namespace Krt::File
