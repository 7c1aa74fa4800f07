#include "Krt/Util/YUnxHandle.h"

#include "Krt/Util/Retry.h"

#include <fcntl.h>
#include <unistd.h>

namespace Krt::Util {

YUnxHandle& YUnxHandle::operator=(YUnxHandle&& other) noexcept
{
    if (this != &other) {
        Close();
        m_descriptor = std::exchange(other.m_descriptor, 0);
        m_owned = std::exchange(other.m_owned, true);
    }
    return *this;
}

void YUnxHandle::Close() noexcept
{
    const int descriptor = std::exchange(m_descriptor, 0);
    if (std::exchange(m_owned, true) && descriptor != 0)
        RetryOnInterrupt([&] { return close(descriptor); });
}

int MoveAboveStandardStreams(int descriptor) noexcept
{
    if (descriptor < 0 || descriptor > STDERR_FILENO) [[likely]]
        return descriptor;
    const int moved = RetryOnInterrupt([&] { return fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); });
    const int error = errno;
    RetryOnInterrupt([&] { return close(descriptor); });
    errno = error;
    return moved;
}

} // namespace Krt::Util
