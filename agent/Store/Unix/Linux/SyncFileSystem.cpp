#include "agent/Store/Durable.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Retry.h"

#include <unistd.h>

namespace Agent {

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    if (Krt::Util::RetryOnInterrupt([&] { return syncfs(directory.Get()); }) != 0)
        KRT_RAISE_OS("Failed to write to disk");
}

} // namespace Agent
