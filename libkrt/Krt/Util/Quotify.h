#pragma once

/// @file
/// Quoting of text.

#include "Krt/String/YString.h"

namespace Krt::Util {

/// Returns the text between two quotation marks, so that a reader treats it as one word without any special
/// meaning. An empty string results in the two marks. Line ends are not changed. A text with a NUL is not
/// suitable for a shell.
/// - A double quote as the mark, for a shell: backslash, double quote, dollar sign and backtick are escaped
///   by a backslash.
/// - A single quote as the mark, for a shell: each single quote ends the quotation, is escaped by a
///   backslash, and begins it again.
/// - Other marks, for readers with backslash escapes: backslash and mark are escaped by a backslash.
KRT_API YString QuotifyEx(const YString& text, char quote);

} // namespace Krt::Util
