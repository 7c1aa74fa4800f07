// Functions of the C library as a test sees them: each call of the process, those of the shared libraries
// included, passes through a filter, which may answer it in place of the system. An executable that links
// TestingCalls has it.
#pragma once

#include <cstddef>
#include <optional>

namespace Testing {

/// A call before it is made.
struct Call
{
    const char* function;
    int descriptor = -1;             ///< of the directory of a name; of the file itself; -1 for a path
    const char* name = nullptr;      ///< or the path; null for a call about a descriptor
    const char* attribute = nullptr; ///< the name of an extended attribute
    void* data = nullptr;            ///< the buffer to fill, of `size` bytes
    std::size_t size = 0;
    std::size_t* count = nullptr; ///< the bytes that a transfer is to move, which the filter may lower
    long failed = -1;             ///< what the function returns on failure
    bool isRestarted = false;     ///< true if no signal interrupts it, or the C library repeats it
};

/// Returns the result of the call, with errno set, or nothing if the call shall be made.
using CallFilter = std::optional<long> (*)(const Call& call);

/// The filter of this process, null for none.
extern CallFilter g_callFilter;

} // namespace Testing
