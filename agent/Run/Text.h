// Text for people: names made printable, errors, sizes and times in short.
#pragma once

#include "Krt/Exception/YError.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Backup {
class YJobPath;
}

namespace Agent {

/// Returns the text on one printable line, different for different texts; see Krt/String/Printable.h.
std::string Printable(std::string_view text);
inline std::string Printable(const Krt::YString& text)
{
    return Printable(std::string_view(text.Bytes()));
}

/// Does the work of Printable for JSON text, which remains JSON of the same value.
std::string PrintableJson(std::string_view json);

/// Returns the path that the user knows: that of the file system, or the job path of an entry without one.
Krt::YString ShownPath(const Backup::YJobPath& path);

/// Returns the error's message, followed by the operating system's text. Not made printable.
Krt::YString ReasonOf(const Krt::Exception::YError& error);

/// Returns the texts with the separator between them.
std::string Joined(const std::vector<std::string>& texts, const char* separator);
/// Returns a count with the noun for it, as in "1 lock" or "2 locks".
std::string CountText(unsigned long long count, const char* one, const char* several);
/// Returns a text such as "999 B" or "1.2 MiB".
std::string ShortSize(unsigned long long bytes);
/// Returns a text such as "0:12" or "1:02:03".
std::string DurationText(unsigned long long seconds);
/// Returns the bytes of a size such as "500", "20K" or "1.5G"; the units are powers of 1024. Returns nothing
/// for other text, and for a size of an exabyte or more.
std::optional<std::uint64_t> ParseSize(const std::string& text);
/// Returns the time in UTC, as in "2001-02-03T04:05:06Z". `seconds` is a signed number in an unsigned type; a
/// time that is outside of the calendar is printed as a number.
std::string TimeText(unsigned long long seconds);

} // namespace Agent
