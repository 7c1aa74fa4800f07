// Text that people read on a terminal or in a log, made of text that may hold anything.
#pragma once

#include "Krt/Export.h"

#include <string>
#include <string_view>

namespace Krt::String {

/// Appends the text to `out`, with these as escapes (\n, \t, \r, \xHH, \uHHHH, \UHHHHHHHH):
///   - control characters, and bytes that are not part of valid UTF-8
///   - characters that change the direction or the lines of text
///   - characters that are invisible (Default_Ignorable_Code_Point of Unicode), and blanks other than U+0020
///   and
///     the wide U+3000
/// A backslash is doubled. The result is one line that steers no terminal, and different texts look
/// different. Any thread.
KRT_API void AppendPrintable(std::string& out, std::string_view text);

/// Appends the JSON text to `out`, so that it may be printed. In its strings the characters that
/// AppendPrintable escapes are escapes of JSON; a control between its tokens, other than a line end, becomes
/// a blank. The value of the text stays the same.
KRT_API void AppendPrintableJson(std::string& out, std::string_view json);

} // namespace Krt::String
