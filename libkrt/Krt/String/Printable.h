// Text that people read on a terminal or in a log, made of text that may hold anything.
#pragma once

#include "Krt/Export.h"

#include <string>
#include <string_view>

namespace Krt::String {

/// Appends the text with each control character, each byte that is no part of valid UTF-8, and each character
/// that changes the direction or the lines of text as an escape (\n, \t, \r, \xHH, \uHHHH); a backslash is
/// doubled. So it is one line, steers nothing, and different texts stay different. Any thread.
KRT_API void AppendPrintable(std::string& out, std::string_view text);

/// JSON text with the characters in its strings that a terminal acts upon or shows out of order as escapes,
/// and each control between its tokens but a line's end as a blank, so that it may be printed. It stands for
/// the same value.
KRT_API void AppendPrintableJson(std::string& out, std::string_view json);

} // namespace Krt::String
