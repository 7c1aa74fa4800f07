#pragma once

/// @file
/// Conversion between UTF-8 and UTF-16 with one code unit in each wchar_t.

#include "Krt/Memory/YHeap.h"

namespace Krt::String {

/// Converts between encodings. From and To are wchar_t and char, or char and wchar_t. Raises InvalidUtf16
/// or InvalidUtf8.
template <class From, class To>
Memory::YHeap<To> Convert(const From* text);

/// Converts UTF-16, up to its NUL unit, to NUL-terminated UTF-8. The heap has 16 bytes for each unit
/// including the terminator. Raises InvalidUtf16 or InvalidUtf8.
template <>
KRT_API Memory::YHeap<char> Convert<wchar_t, char>(const wchar_t* text);
/// Converts UTF-8, up to its NUL, to NUL-terminated UTF-16. Raises InvalidUtf16 or InvalidUtf8.
template <>
KRT_API Memory::YHeap<wchar_t> Convert<char, wchar_t>(const char* text);

} // namespace Krt::String
