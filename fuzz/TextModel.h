// The operations of YString said again on plain bytes, one character after the other and always from the
// start: slow, and plain enough to be trusted.
#pragma once

#include "Krt/String/Ascii.h"
#include "Krt/String/YString.h"

#include <bit>
#include <string>

namespace Fuzz::Model {

using Krt::YString;
constexpr unsigned int NotFound = YString::NotFound;
constexpr std::size_t PastEnd = std::string::npos;

/// What a lead byte announces by the ones at its top, of which 2 to 6 mean something.
inline std::size_t CharacterSize(char lead)
{
    const int ones = std::countl_one(static_cast<unsigned char>(lead));
    return ones >= 2 && ones <= 6 ? static_cast<std::size_t>(ones) : 1;
}

inline std::string Stripped(std::string text)
{
    while (text.ends_with('\0'))
        text.pop_back();
    return text;
}

inline std::string Folded(std::string text, bool caseSensitive)
{
    for (char& byte : text)
        byte = caseSensitive ? byte : Krt::String::ToLower(byte);
    return text;
}

inline std::size_t Walk(const std::string& text, std::size_t at, unsigned int count)
{
    for (; count != 0 && at <= text.size(); --count)
        at += CharacterSize(text[at]);
    return at <= text.size() ? at : PastEnd;
}

inline std::size_t Locate(const std::string& text, unsigned int index)
{
    return index < text.size() ? Walk(text, 0, index) : PastEnd;
}

inline unsigned int Length(const std::string& text)
{
    unsigned int count = 0;
    for (std::size_t at = 0; at < text.size() && text[at] != '\0'; at += CharacterSize(text[at]))
        ++count;
    return count;
}

inline bool Matches(const std::string& text, std::size_t at, const std::string& needle, bool caseSensitive)
{
    return Folded(text.substr(at, needle.size()), caseSensitive) == Folded(needle, caseSensitive);
}

/// The needle ends at its first NUL.
inline unsigned int Find(const std::string& text, const std::string& needle, unsigned int start,
                         bool caseSensitive)
{
    for (unsigned int index = start;; ++index) {
        const std::size_t at = Locate(text, index);
        if (at == PastEnd || at == text.size() || text[at] == '\0')
            return NotFound;
        if (Matches(text, at, needle.c_str(), caseSensitive))
            return index;
    }
}

inline std::string Mid(const std::string& text, unsigned int start, unsigned int count)
{
    const std::size_t begin = Locate(text, start);
    if (begin == PastEnd)
        return {};
    const bool toEnd = count == NotFound || std::size_t(start) + count >= text.size();
    const std::size_t end = toEnd ? PastEnd : Walk(text, begin, count);
    return text.substr(begin, end == PastEnd ? end : end - begin).c_str();
}

inline std::string Right(const std::string& text, unsigned int count)
{
    return count >= Length(text) ? Mid(text, 0, NotFound) : Mid(text, Length(text) - count, NotFound);
}

/// With how often in `count`.
inline std::string Replaced(std::string text, const std::string& from, const std::string& to,
                            unsigned int start, unsigned int maxCount, bool caseSensitive,
                            unsigned int& count)
{
    count = 0;
    std::size_t at = Locate(text, start);
    while (at < text.size() && text[at] != '\0') {
        if (!Matches(text, at, from, caseSensitive)) {
            at += CharacterSize(text[at]);
            continue;
        }
        text.replace(at, from.size(), to);
        at += to.size();
        if (++count == maxCount)
            break;
    }
    return Stripped(text);
}

} // namespace Fuzz::Model
