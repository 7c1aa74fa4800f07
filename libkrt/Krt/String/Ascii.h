#pragma once

/// @file
/// ASCII text: letter case, independent of the locale, and hexadecimal digits.

#include <algorithm>
#include <string>
#include <string_view>

namespace Krt::String {

/// The digits of a hexadecimal number, by value.
inline constexpr std::string_view HexDigits = "0123456789abcdef";
/// The hexadecimal digits in both cases.
inline constexpr std::string_view AnyHexDigits = "0123456789abcdefABCDEF";

/// Appends the bytes as two digits each.
template <class Bytes>
void AppendHex(std::string& text, const Bytes& bytes)
{
    for (const unsigned char byte : bytes) {
        text += HexDigits[byte >> 4];
        text += HexDigits[byte & 15];
    }
}

/// Returns the lower-case letter; other bytes unchanged.
constexpr char ToLower(char byte)
{
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

/// Returns the upper-case letter; other bytes unchanged.
constexpr char ToUpper(char byte)
{
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
}

/// Returns true if the bytes are equal, ignoring letter case unless `caseSensitive`.
inline bool Equals(std::string_view a, std::string_view b, bool caseSensitive)
{
    if (caseSensitive)
        return a == b;
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return ToLower(x) == ToLower(y); });
}

} // namespace Krt::String
