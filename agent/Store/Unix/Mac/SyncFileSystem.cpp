#include "agent/Store/Durable.h"

#include "agent/Run/CallInChild.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Retry.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace Agent {

using Krt::Util::RetryOnInterrupt;

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    // sync hands everything to the device; the second call makes the device write what it holds. A file
    // system that can't flush the device has fsync alone.
    const int error = CallInChild([&] {
        sync();
        const bool isDurable = RetryOnInterrupt([&] { return fcntl(directory.Get(), F_FULLFSYNC); }) >= 0 ||
                               RetryOnInterrupt([&] { return fsync(directory.Get()); }) >= 0;
        return isDurable ? 0 : errno;
    });
    if (error != 0)
        KRT_RAISE_OS_ERROR(error, Krt::MessageType::General, "Failed to write to disk");
}

} // namespace Agent
