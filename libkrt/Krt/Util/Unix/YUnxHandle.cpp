#include "Krt/Util/YUnxHandle.h"

#include "Krt/Exception/Raise.h"

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

OsResult<YUnxHandle> OpenHandle(const char* path, int flags, unsigned int mode)
{
    return OwnAboveStandardStreams(CallSystem([&] { return open(path, flags | O_CLOEXEC, mode); }));
}

int TryCloseWritten(YUnxHandle& handle)
{
    if (handle.IsEmpty())
        return 0;
    const int descriptor = handle.Release();
    if (close(descriptor) == 0)
        return 0;
    if (const int error = errno; error != EINTR)
        return error;
    // Systems differ in whether an interrupted close has released the descriptor. EINTR says nothing about
    // the data, and neither does a repeated call that finds nothing to close.
    const int error = CallSystem([&] { return close(descriptor); }).error;
    return error == EBADF ? 0 : error;
}

void CloseWritten(YUnxHandle& handle)
{
    if (const int error = TryCloseWritten(handle))
        KRT_RAISE_OS(error, "Failed to write file");
}

} // namespace Krt::Util
