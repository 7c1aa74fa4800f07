// Checks of handles and names before a system call takes them for something else.
#pragma once

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YUnxHandle.h"

namespace Krt::File {

/// The descriptor of a handle; raises InvalidState, reporting `function`, for an empty one. Its descriptor 0
/// would reach the process's standard input.
inline int DescriptorOf(const Util::YUnxHandle& handle, const char* function)
{
    if (handle.IsEmpty()) [[unlikely]]
        KRT_RAISE_AS(function, MessageType::General, ErrorCode::InvalidState, "File is not open");
    return handle.Get();
}

/// The name's text; raises InvalidArgument, reporting `function`, for an empty name, ".", "..", and one with
/// "/" or NUL in it.
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
