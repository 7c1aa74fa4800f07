#include "agent/Restore/Durable.h"

#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <unistd.h>

namespace Agent {

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    // sync hands everything to the device; the second call makes the device write what it holds. A file
    // system that can't flush the device has fsync alone.
    const int error = CallInChild([&] {
        sync();
        return Krt::Util::CallSystem([&] { return fcntl(directory.Get(), F_FULLFSYNC); })
                   ? 0
                   : Krt::Util::CallSystem([&] { return fsync(directory.Get()); }).error;
    });
    if (error != 0)
        KRT_RAISE_OS(error, "Failed to write to disk");
}

} // namespace Agent
