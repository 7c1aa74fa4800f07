// The only conversions between text and numbers.
#pragma once

#include "Krt/String/YString.h"

namespace Krt::Util {

/// Decimal text; with `hex`, "0x" and at least eight lower-case hexadecimal digits. For int and unsigned int.
template <class T>
YString NumberToString(T value, bool hex);

/// For bool, unsigned int and unsigned long long. White space at both ends is trimmed; a leading "0x" or
/// `hex` reads hexadecimal; with `strict` nothing may follow the number. A bool is t, f, y, n, 1 or 0 in
/// either case, as the whole text with `strict`, else as its beginning. Raises NumberConversion.
template <class T>
T StringToNumber(const YString& text, bool hex, bool strict);

template <>
KRT_API YString NumberToString<unsigned int>(unsigned int value, bool hex);
template <>
KRT_API YString NumberToString<int>(int value, bool hex);
template <>
KRT_API bool StringToNumber<bool>(const YString& text, bool hex, bool strict);
template <>
KRT_API unsigned int StringToNumber<unsigned int>(const YString& text, bool hex, bool strict);
template <>
KRT_API unsigned long long StringToNumber<unsigned long long>(const YString& text, bool hex, bool strict);

} // namespace Krt::Util
