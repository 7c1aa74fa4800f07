// Intercepts functions of the C library in a test: each call of the process, including those of the shared
// libraries, passes through a filter, which may answer it instead of the system. For executables that link
// TestingCalls.
#pragma once

#include <cstddef>
#include <optional>

namespace Testing {

/// A call before it is made.
struct Call
{
    const char* function;
    int descriptor = -1;             ///< of the directory for a name, of the file itself, or -1 for a path
    const char* name = nullptr;      ///< or the path; null for a call that only has a descriptor
    const char* attribute = nullptr; ///< the name of an extended attribute
    void* data = nullptr;            ///< the buffer to fill, of `size` bytes
    std::size_t size = 0;
    std::size_t* count = nullptr; ///< the number of bytes to transfer, which the filter may lower
    long failed = -1;             ///< what the function returns on failure
    bool isRestarted = false;     ///< true if no signal interrupts it, or the C library repeats it
};

/// Returns the result of the call, with errno set, or nothing if the call is to be made.
using CallFilter = std::optional<long> (*)(const Call& call);

/// The filter of this process, or null.
extern CallFilter g_callFilter;

} // namespace Testing
