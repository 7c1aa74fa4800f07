// Letter case as this layer knows it: the letters of ASCII, and no others. Free of locales.
#pragma once

#include <algorithm>
#include <string_view>

namespace Krt::String {

constexpr char ToLower(char byte)
{
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

constexpr char ToUpper(char byte)
{
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
}

/// Whether the bytes are the same, up to letter case unless `caseSensitive`.
inline bool Equals(std::string_view a, std::string_view b, bool caseSensitive)
{
    if (caseSensitive)
        return a == b;
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return ToLower(x) == ToLower(y); });
}

} // namespace Krt::String
