#include "Krt/File/OpenFile.h"
#include "Krt/File/Unix/Descriptor.h"
#include "Krt/Util/Retry.h"

#include <unistd.h>

namespace Krt::File {

void Sync(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    if (Util::RetryOnInterrupt([&] { return fsync(descriptor); }) < 0)
        KRT_RAISE_OS("Failed to sync file");
}

} // namespace Krt::File
