#include "agent/Store/Durable.h"

#include "agent/Run/CallInChild.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Retry.h"

#include <cerrno>
#include <unistd.h>

namespace Agent {

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    const int error = CallInChild([&] {
        return Krt::Util::RetryOnInterrupt([&] { return syncfs(directory.Get()); }) == 0 ? 0 : errno;
    });
    if (error != 0)
        KRT_RAISE_OS_ERROR(error, Krt::MessageType::General, "Failed to write to disk");
}

} // namespace Agent
