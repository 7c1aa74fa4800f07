// A system call, repeated while a signal interrupts it, with its error number taken at the call.
// KRT_SYSCALL in Krt/Exception/Raise.h also raises that error.
#pragma once

#include <cerrno>

namespace Krt::Util {

/// Result of an operation of the system.
template <class T>
struct OsResult
{
    T value{};     ///< what it returned; after a failure, what the operation documents
    int error = 0; ///< number of the error; 0 after a success, and never 0 after a failure

    /// Returns true after a success.
    explicit operator bool() const { return error == 0; }
};

/// Calls until no signal interrupts the call. A negative result is a failure, and `value` holds it. An
/// interruption is not left in errno: the transfers of Backup/File/Unix/File.h would take it for theirs.
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
