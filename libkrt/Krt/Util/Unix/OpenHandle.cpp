#include "Krt/Util/OpenHandle.h"

#include "Krt/Util/Retry.h"

#include <fcntl.h>
#include <unistd.h>

namespace Krt::Util {

YUnxHandle OpenHandle(const char* path, int flags, unsigned int mode)
{
    int descriptor = RetryOnInterrupt([&] { return open(path, flags | O_CLOEXEC, mode); });
    if (descriptor >= 0 && descriptor <= STDERR_FILENO) {
        const int standard = descriptor;
        descriptor = fcntl(standard, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        const int error = errno;
        close(standard);
        errno = error;
    }
    return descriptor < 0 ? YUnxHandle() : YUnxHandle(descriptor, true);
}

} // namespace Krt::Util
