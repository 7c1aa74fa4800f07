#include "Krt/Util/OpenHandle.h"

#include "Krt/Util/Retry.h"

#include <fcntl.h>

namespace Krt::Util {

YUnxHandle OpenHandle(const char* path, int flags, unsigned int mode)
{
    const int descriptor =
        MoveAboveStandardStreams(RetryOnInterrupt([&] { return open(path, flags | O_CLOEXEC, mode); }));
    return descriptor < 0 ? YUnxHandle() : YUnxHandle(descriptor, true);
}

} // namespace Krt::Util
