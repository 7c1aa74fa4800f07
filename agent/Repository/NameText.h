// Names of entries as text. Names are any bytes; in a tree they are quoted, so that they become valid UTF-8
// of printable characters, and can be turned back.
#pragma once

#include <string>
#include <string_view>

namespace Agent::Repo {

/// Returns true for U+0020 and for the characters of the categories L, M, N, P and S of Unicode 15.0.
bool IsPrintable(char32_t character);

/// Appends the quoted name to `out`:
///   - a backslash and a double quote get a backslash
///   - other printable characters stay
///   - \a \b \t \n \v \f \r, \xhh, \uhhhh and \Uhhhhhhhh represent everything else
///   - \xhh represents each byte that is not part of valid UTF-8
void AppendQuotedName(std::string_view name, std::string& out);

/// Replaces `name` with the name that was quoted. Also takes escapes where none are needed, and \ooo for a
/// byte in octal. Returns false, with `name` unspecified, for an invalid escape, a double quote without a
/// backslash and a line end.
[[nodiscard]] bool UnquoteName(std::string_view text, std::string& name);

/// Returns true if a directory can have an entry of this name: neither empty, "." nor "..", and without "/"
/// and NUL.
bool IsEntryName(std::string_view name);

} // namespace Agent::Repo
