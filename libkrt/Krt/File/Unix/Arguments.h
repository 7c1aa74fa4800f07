#pragma once

/// @file
/// Checks of handles and names before a system call misinterprets them.

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YUnxHandle.h"

namespace Krt::File {

/// Returns the descriptor of a handle. Raises InvalidState, reporting `function`, for an empty one, whose
/// descriptor 0 is the process's standard input.
inline int DescriptorOf(const Util::YUnxHandle& handle, const char* function)
{
    if (handle.IsEmpty()) [[unlikely]]
        KRT_RAISE_AS(function, MessageType::General, ErrorCode::InvalidState, "File is not open");
    return handle.Get();
}

/// Returns the name's text. Raises InvalidArgument, reporting `function`, for an empty name, ".", "..", and
/// a name with "/" or NUL.
inline const char* CheckEntryName(const YString& name, const char* function)
{
    const std::string& bytes = name.Bytes();
    const bool isDots = bytes.size() <= 2 && bytes.find_first_not_of('.') == std::string::npos;
    if (isDots || bytes.find('/') != std::string::npos || bytes.find('\0') != std::string::npos) [[unlikely]]
        KRT_RAISE_AS(function, MessageType::General, ErrorCode::InvalidArgument,
                     "Not the name of an entry: '" << name << "'");
    return name.CStr();
}

} // namespace Krt::File
