#include "agent/Restore/Durable.h"

#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"

#include <unistd.h>

namespace Agent {

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    const int error =
        CallInChild([&] { return Krt::Util::CallSystem([&] { return syncfs(directory.Get()); }).error; });
    if (error != 0)
        KRT_RAISE_OS(error, "Failed to write to disk");
}

} // namespace Agent
