// Repeats a system call for as long as a signal interrupts it.
#pragma once

#include <cerrno>

namespace Krt::Util {

/// Calls until the result isn't negative or errno isn't EINTR; returns the last result. After a success errno
/// is as it was before: an EINTR left behind would be taken for an interruption by whoever looks at it next.
template <class Call>
auto RetryOnInterrupt(Call call)
{
    const int before = errno;
    auto result = call();
    while (result < 0)
        [[unlikely]]
        {
            if (errno != EINTR)
                return result;
            result = call();
        }
    errno = before;
    return result;
}

} // namespace Krt::Util
