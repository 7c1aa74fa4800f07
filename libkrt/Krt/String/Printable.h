#pragma once

/// @file
/// Escaping of untrusted text for a terminal or a log.

#include "Krt/Export.h"

#include <string>
#include <string_view>

namespace Krt::String {

/// Appends the text to `out` as one line without control characters; different texts look different. A
/// backslash is doubled. These are written as escapes (`\n`, `\t`, `\r`, `\xHH`, `\uHHHH`, `\UHHHHHHHH`):
/// - control characters, and bytes that are not part of valid UTF-8
/// - characters that change the direction or the lines of text
/// - invisible characters (Default_Ignorable_Code_Point of Unicode)
/// - blanks other than U+0020 and the wide U+3000
///
/// Any thread.
KRT_API void AppendPrintable(std::string& out, std::string_view text);

/// Appends the JSON text to `out` in a printable form. In its strings the characters that AppendPrintable
/// escapes become escapes of JSON. A control character between its tokens, except for a line end, becomes a
/// blank. The value of the text is not changed.
KRT_API void AppendPrintableJson(std::string& out, std::string_view json);

} // namespace Krt::String
