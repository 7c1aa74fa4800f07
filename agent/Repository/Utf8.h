// Characters of UTF-8.
#pragma once

#include "Krt/String/Utf8.h"

#include <string>
#include <string_view>

namespace Agent::Repo {

using Krt::String::DecodeUtf8;
using Krt::String::Utf8Character;

/// Appends the character. Surrogates and numbers above U+10FFFF become U+FFFD.
void AppendUtf8(char32_t code, std::string& out);
/// Returns true if the whole text is valid.
bool IsUtf8(std::string_view text);

} // namespace Agent::Repo
