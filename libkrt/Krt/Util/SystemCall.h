#pragma once

/// @file
/// System calls: retrying on EINTR, and results with an error number. KRT_SYSCALL in Krt/Exception/Raise.h
/// also raises the error.

#include <cerrno>

namespace Krt::Util {

/// The result of an operation of the system.
template <class T>
struct OsResult
{
    T value{};     ///< the result; after a failure, as the operation documents
    int error = 0; ///< the error number; 0 after a success, and never 0 after a failure

    /// Returns true after a success.
    explicit operator bool() const { return error == 0; }
};

/// Repeats the call until it is not interrupted by a signal. A negative result is a failure; `value`
/// contains it. EINTR is not left in errno, since the operations of Backup/File/Unix/File.h would misread
/// it.
template <class Call>
auto CallSystem(const Call& call) -> OsResult<decltype(call())>
{
    for (;;) {
        const auto value = call();
        if (value >= 0) [[likely]]
            return {value, 0};
        const int error = errno;
        if (error != EINTR)
            return {value, error != 0 ? error : EIO};
        errno = 0;
    }
}

} // namespace Krt::Util
