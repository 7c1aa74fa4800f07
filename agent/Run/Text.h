// Text for people: names made printable, errors, sizes and times in short.
#pragma once

#include "Krt/Exception/YError.h"

#include <string>
#include <string_view>

namespace Backup {
class YJobPath;
}

namespace Agent {

/// See Krt/String/Printable.h: one line that steers nothing, and different for different texts.
std::string Printable(std::string_view text);
inline std::string Printable(const Krt::YString& text)
{
    return Printable(std::string_view(text.Bytes()));
}

/// Printable for JSON text, which stays JSON of the same value.
std::string PrintableJson(std::string_view json);

/// The path under which an entry is known to the user: that of the file system, or the job path of what has
/// none.
Krt::YString ShownPath(const Backup::YJobPath& path);

/// What went wrong: the error's message, followed by the operating system's text. Not made printable.
Krt::YString ReasonOf(const Krt::Exception::YError& error);

/// "999 B", "1.2 MiB".
std::string ShortSize(unsigned long long bytes);
/// UTC, as in "2001-02-03T04:05:06Z". `seconds` is a signed number in an unsigned type; one that no calendar
/// has is printed as a number.
std::string TimeText(unsigned long long seconds);

} // namespace Agent
