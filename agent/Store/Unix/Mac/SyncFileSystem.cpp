#include "agent/Store/Durable.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Retry.h"

#include <fcntl.h>
#include <unistd.h>

namespace Agent {

using Krt::Util::RetryOnInterrupt;

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    // sync hands everything to the device; the second call makes the device write what it holds. A file
    // system that can't flush the device has fsync alone.
    sync();
    if (RetryOnInterrupt([&] { return fcntl(directory.Get(), F_FULLFSYNC); }) < 0 &&
        RetryOnInterrupt([&] { return fsync(directory.Get()); }) < 0)
        KRT_RAISE_OS("Failed to write to disk");
}

} // namespace Agent
