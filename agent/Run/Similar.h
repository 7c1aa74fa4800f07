// Names that a user may have meant by a misspelt one.
#pragma once

#include <string_view>

namespace Agent {

/// Returns true if the texts differ by at most one byte that was added, left out, replaced or exchanged with
/// the next one, or two of at least six; or only in upper and lower case of the letters a to z. False for
/// equal texts.
bool IsMisspelt(std::string_view typed, std::string_view meant);

} // namespace Agent
