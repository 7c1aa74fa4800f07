// Text in quotes.
#pragma once

#include "Krt/String/YString.h"

namespace Krt::Util {

/// The text between two of the given quotation marks, so that a reader takes it for one word and for nothing
/// else:
///   '"'    for a shell: backslash, '"', '$' and the backtick get a backslash in front
///   '\''   for a shell: each ' is written '\''
///   other  for readers that know the backslash alone: backslash and mark get one in front
/// An empty text gives the two marks. Line ends stay as they are. No text that holds a NUL is for a shell.
KRT_API YString QuotifyEx(const YString& text, char quote);

} // namespace Krt::Util
