// The check that a name is one component, before a system call can take it for a path.
#pragma once

#include "Krt/Exception/Raise.h"

namespace Krt::File {

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
