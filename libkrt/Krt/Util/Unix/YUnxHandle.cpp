#include "Krt/Util/YUnxHandle.h"

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
        CallSystem([&] { return close(descriptor); });
}

OsResult<YUnxHandle> OwnAboveStandardStreams(OsResult<int> opened) noexcept
{
    if (opened && opened.value <= STDERR_FILENO) [[unlikely]] {
        const int low = opened.value;
        opened = CallSystem([&] { return fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); });
        CallSystem([&] { return close(low); });
    }
    if (!opened)
        return {YUnxHandle(), opened.error};
    return {YUnxHandle(opened.value, true), 0};
}

} // namespace Krt::Util
