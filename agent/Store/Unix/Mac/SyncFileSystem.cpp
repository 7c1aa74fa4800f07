#include "agent/Store/Durable.h"

#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <unistd.h>

namespace Agent {

void SyncFileSystem(const Krt::Util::YUnxHandle& directory)
{
    // sync hands everything to the device; the second call makes the device write what it holds.
    sync();
    if (fcntl(directory.Get(), F_FULLFSYNC) < 0)
        KRT_RAISE_OS("Failed to write the store to disk");
}

} // namespace Agent
