#include "Krt/Util/OpenHandle.h"

#include "Krt/Util/Retry.h"

#include <fcntl.h>
#include <unistd.h>

namespace Krt::Util {

YUnxHandle OpenHandle(const char* path, int flags, unsigned int mode)
{
    const int descriptor =
        MoveAboveStandardStreams(RetryOnInterrupt([&] { return open(path, flags | O_CLOEXEC, mode); }));
    return descriptor < 0 ? YUnxHandle() : YUnxHandle(descriptor, true);
}

bool CloseWritten(YUnxHandle& handle)
{
    const int descriptor = handle.Release();
    if (close(descriptor) == 0)
        return true;
    // Whether an interrupted close has let go of the descriptor differs between systems. It says nothing of
    // the data, and neither does a repetition that finds nothing to close.
    return errno == EINTR && (RetryOnInterrupt([&] { return close(descriptor); }) == 0 || errno == EBADF);
}

} // namespace Krt::Util
