// Conversion between UTF-8 text and text of UTF-16 code units, one in each wchar_t.
#pragma once

#include "Krt/Memory/YHeap.h"

namespace Krt::String {

/// Convert<wchar_t, char>: UTF-16 up to its NUL unit, as UTF-8 with a NUL behind it, in a heap of 16 bytes
/// for each unit and the terminator. Raises InvalidUtf16 or InvalidUtf8. Convert<char, wchar_t>: the reverse,
/// NUL-terminated.
template <class From, class To>
Memory::YHeap<To> Convert(const From* text);

template <>
KRT_API Memory::YHeap<char> Convert<wchar_t, char>(const wchar_t* text);
template <>
KRT_API Memory::YHeap<wchar_t> Convert<char, wchar_t>(const char* text);

} // namespace Krt::String
