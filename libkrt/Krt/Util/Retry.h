// Repeats a system call for as long as a signal interrupts it.
#pragma once

#include <cerrno>

namespace Krt::Util {

/// Calls until the result isn't negative or errno isn't EINTR; returns the last result.
template <class Call>
auto RetryOnInterrupt(Call call)
{
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

} // namespace Krt::Util
