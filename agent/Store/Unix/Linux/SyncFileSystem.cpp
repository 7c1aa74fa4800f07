#include "agent/Store/Durable.h"

#include "Krt/Exception/Raise.h"

#include <unistd.h>

namespace Agent {

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    if (syncfs(directory.Get()) != 0)
        KRT_RAISE_OS("Failed to write the store to disk");
}

} // namespace Agent
