#pragma once

/// @file
/// Decoding of UTF-8.

#include <cstddef>
#include <string_view>

namespace Krt::String {

/// A character in a text.
struct Utf8Character
{
    char32_t code = 0;    ///< the code point
    std::size_t size = 0; ///< bytes; 0 if the first byte is not part of valid UTF-8
};

/// Returns true for the code points that UTF-8 can encode: up to U+10FFFF, without the surrogates.
constexpr bool IsScalarValue(char32_t code)
{
    return code < 0xD800 || (code > 0xDFFF && code <= 0x10FFFF);
}

/// Decodes the first character of a text, which is not empty. Overlong forms, surrogates and numbers above
/// U+10FFFF are not valid. Any thread.
inline Utf8Character DecodeUtf8(std::string_view text)
{
    const auto byte = [text](std::size_t i) -> char32_t {
        return static_cast<unsigned char>(text[i]);
    };
    const auto continues = [byte](std::size_t i) {
        return (byte(i) & 0xC0) == 0x80;
    };
    const auto bits = [byte](std::size_t i) {
        return byte(i) & 0x3F;
    };
    const char32_t lead = byte(0);
    if (lead < 0x80)
        return {lead, 1};
    if (lead < 0xC2 || lead > 0xF4)
        return {};
    if (lead < 0xE0) {
        if (text.size() < 2 || !continues(1))
            return {};
        return {(lead & 0x1F) << 6 | bits(1), 2};
    }
    if (lead < 0xF0) {
        if (text.size() < 3 || !continues(1) || !continues(2))
            return {};
        const char32_t code = (lead & 0x0F) << 12 | bits(1) << 6 | bits(2);
        return code >= 0x800 && IsScalarValue(code) ? Utf8Character{code, 3} : Utf8Character{};
    }
    if (text.size() < 4 || !continues(1) || !continues(2) || !continues(3))
        return {};
    const char32_t code = (lead & 0x07) << 18 | bits(1) << 12 | bits(2) << 6 | bits(3);
    return code >= 0x10000 && IsScalarValue(code) ? Utf8Character{code, 4} : Utf8Character{};
}

} // namespace Krt::String
