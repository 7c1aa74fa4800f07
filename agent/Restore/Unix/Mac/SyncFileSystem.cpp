#include "agent/Restore/Durable.h"

#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <unistd.h>

namespace Agent {

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    // sync passes all written data to the device, and F_FULLFSYNC makes the device write its cache. A file
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
