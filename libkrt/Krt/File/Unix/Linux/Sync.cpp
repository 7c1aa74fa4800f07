#include "Krt/File/OpenFile.h"
#include "Krt/File/Unix/Arguments.h"

#include <unistd.h>

namespace Krt::File {

void Sync(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    KRT_SYSCALL(fsync(descriptor), "Failed to sync file");
}

} // namespace Krt::File
