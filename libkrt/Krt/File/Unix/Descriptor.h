// The descriptor of a handle that an operation is about to use. Descriptor 0 stands for none, and a system
// call on it would reach the process's standard input.
#pragma once

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YUnxHandle.h"

namespace Krt::File {

inline int DescriptorOf(const Util::YUnxHandle& handle, const char* function)
{
    if (handle.IsEmpty()) [[unlikely]]
        KRT_RAISE_AS(function, MessageType::General, ErrorCode::InvalidState, "File is not open");
    return handle.Get();
}

} // namespace Krt::File
