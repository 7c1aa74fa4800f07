#pragma once

/// @file
/// Conversions between text and numbers.

#include "Krt/String/YString.h"

namespace Krt::Util {

/// Returns decimal text; with `hex` "0x" and at least eight lower-case hexadecimal digits. T is int or
/// unsigned int.
template <class T>
YString NumberToString(T value, bool hex);

/// Returns the number of the text. T is bool, unsigned int or unsigned long long.
/// - Blanks, line feeds and carriage returns at both ends are ignored.
/// - A leading "0x" or "0X", or `hex`, selects hexadecimal digits.
/// - A minus sign wraps the number around: "-1" is the largest number.
/// - With `strict` text after the number is an error.
/// - A bool is t, f, y, n, 1 or 0 in either case: the whole text with `strict`, otherwise its beginning.
///
/// Raises NumberConversion.
template <class T>
T StringToNumber(const YString& text, bool hex, bool strict);

/// The conversion from unsigned int.
template <>
KRT_API YString NumberToString<unsigned int>(unsigned int value, bool hex);
/// The conversion from int.
template <>
KRT_API YString NumberToString<int>(int value, bool hex);
/// The conversion to bool.
template <>
KRT_API bool StringToNumber<bool>(const YString& text, bool hex, bool strict);
/// The conversion to unsigned int.
template <>
KRT_API unsigned int StringToNumber<unsigned int>(const YString& text, bool hex, bool strict);
/// The conversion to unsigned long long.
template <>
KRT_API unsigned long long StringToNumber<unsigned long long>(const YString& text, bool hex, bool strict);

} // namespace Krt::Util
