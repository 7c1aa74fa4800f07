// Text for people: names made printable, errors, sizes and times in short.
#pragma once

#include "Krt/Exception/YError.h"

#include <string>
#include <string_view>

namespace Agent {

/// The text with each control character, each byte that is no part of valid UTF-8, and each character that
/// changes the direction or the lines of text written as an escape (\n, \t, \r, \xHH, \uHHHH); a backslash is
/// doubled. So it is one line, and different texts stay different.
std::string Printable(std::string_view text);
inline std::string Printable(const Krt::YString& text)
{
    return Printable(std::string_view(text.Bytes()));
}

/// What went wrong: the error's message, and the operating system's text behind it. Not made printable.
Krt::YString ReasonOf(const Krt::Exception::YError& error);

/// "999 B", "1.2 MiB".
std::string ShortSize(unsigned long long bytes);
/// UTC, as in "2001-02-03T04:05:06Z". `seconds` is a signed number in an unsigned type; one that no calendar
/// has stands as a number.
std::string TimeText(unsigned long long seconds);

} // namespace Agent
