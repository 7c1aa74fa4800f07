#include "Krt/Util/OpenHandle.h"

#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <unistd.h>

namespace Krt::Util {

OsResult<YUnxHandle> OpenHandle(const char* path, int flags, unsigned int mode)
{
    return OwnAboveStandardStreams(CallSystem([&] { return open(path, flags | O_CLOEXEC, mode); }));
}

int TryCloseWritten(YUnxHandle& handle)
{
    const int descriptor = handle.Release();
    if (close(descriptor) == 0)
        return 0;
    if (const int error = errno; error != EINTR)
        return error;
    // Whether an interrupted close has let go of the descriptor differs between systems. It says nothing of
    // the data, and neither does a repetition that finds nothing to close.
    const int error = CallSystem([&] { return close(descriptor); }).error;
    return error == EBADF ? 0 : error;
}

void CloseWritten(YUnxHandle& handle)
{
    if (const int error = TryCloseWritten(handle))
        KRT_RAISE_OS(error, "Failed to write file");
}

} // namespace Krt::Util
