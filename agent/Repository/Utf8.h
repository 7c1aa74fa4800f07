// Characters of UTF-8.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Agent::Repo {

/// A character in a text.
struct Utf8Character
{
    char32_t code = 0;
    std::size_t size = 0; ///< bytes; 0 if the first byte is not part of valid UTF-8
};

/// Decodes the first character of a text, which is not empty. Overlong forms, surrogates and numbers above
/// U+10FFFF are not valid.
Utf8Character DecodeUtf8(std::string_view text);
/// Appends the character. Surrogates and numbers above U+10FFFF become U+FFFD.
void AppendUtf8(char32_t code, std::string& out);
/// Returns true if the whole text is valid.
bool IsUtf8(std::string_view text);

} // namespace Agent::Repo
