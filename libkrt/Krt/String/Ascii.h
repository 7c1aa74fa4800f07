#pragma once

/// @file
/// Letter case of ASCII letters only, independent of the locale.

#include <algorithm>
#include <string_view>

namespace Krt::String {

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
