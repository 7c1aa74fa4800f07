#include "testing/AwkwardNames.h"

#include "Krt/Exception/YError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace Testing {

using namespace std::string_literals;

namespace {

// clang-format off
const std::string Pieces[] = {
    // controls, and terminal sequences
    "\x01", "\a", "\b", "\t", "\n", "\v", "\f", "\r", "\x1b", "\x1f", "\x7f", "\n\n", "\r\n", "\x1b[2J",
    "\x1b]0;t\a", "\r\x1b[K", "\x1b[1A\x1b[2K", "\u0080", "\u0085", "\u009b2J", "\u009f",
    "\n2026-11-21T07:23:58.041+00:00 INFO forged",
    // syntax of parsers
    "\"", "'", "`", "$HOME", "$(id)", "${serviceName}", "%", "%s%n", "%2F", "\\", "\\\\", "\\n", "\\x41",
    "\\u0041", "\\\"", "&amp;", "<!--", "]]>", "*", "?", "[a]", "{}", "[]", "!", "|", ";", "&", "~", "#",
    "-", "--", "--=", "=", ":", "C:", "\\\\?\\C:", "\\\\?\\Volume{0}", " ", "  ", "...", ". ", " .", ",",
    "null", "0", "(", ")", "-> ", "^", "@",
    // same appearance, different encodings
    "\u00e9", "e\u0301", "\u00c5", "\u212b", "A\u030a", "\ud55c", "\u1112\u1161\u11ab", "\ufb01", "\u0130",
    "\u017f", "\u1e9b\u0323", "\u00df", "\u212a", "\u03c2", "\u0430",
    // direction, joining, lines, byte order, noncharacters
    "\u202e", "\u202a", "\u202d", "\u202c", "\u2066", "\u2067", "\u2068", "\u2069", "\u200e", "\u200f",
    "\u061c", "\u2028", "\u2029", "\u00a0", "\u00ad", "\u200b", "\u200d", "\u2060", "\u3000", "\ufeff",
    "\ufff9", "\ufffd", "\uffff", "\ufdd0", "\u05d0", "\u0627", "\U0001f600", "\U0001f468\u200d\U0001f469",
    "\U0010ffff", "\U0001fffe", "\U000e0041", "\u180e", "\u3164", "\ufe0f", "\u115f", "\U0001d173", "\u2800",
    // escapes of bytes in documents
    "\uef80", "\uefff", "\uef7f", "\uf000",
    // invalid UTF-8: lone bytes, overlong, surrogates, above U+10FFFF, truncated
    "\x80", "\xbf", "\x9b", "\xc0\xaf", "\xc1\xbf", "\xe0\x80\xaf", "\xe0\x9f\xbf", "\xf0\x80\x80\xaf",
    "\xf0\x8f\xbf\xbf", "\xf8\x88\x80\x80\x80", "\xfc\x84\x80\x80\x80\x80", "\xed\xa0\x80", "\xed\xbf\xbf",
    "\xed\xa0\xbd\xed\xb8\x80", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xfe", "\xff", "\xff\xfe", "\xc3",
    "\xe2\x82", "\xf0\x9f\x98", "\xe2\x28\xa1", "\xc3\x28", "\xee\xbe", "\xc2\xc2\x9b",
};
// clang-format on

bool IsName(const std::string& text)
{
    return !text.empty() && text.size() <= 255 && text != "." && text != ".." &&
           text.find_first_of("/\0"s) == std::string::npos;
}

// Returns the text that Printable was given.
std::string Unescaped(const std::string& shown)
{
    std::string text;
    for (std::size_t i = 0; i < shown.size(); ++i) {
        if (shown[i] != '\\') {
            text += shown[i];
            continue;
        }
        const char kind = i + 1 < shown.size() ? shown[++i] : 0;
        const std::size_t digits = kind == 'x' ? 2 : kind == 'u' ? 4 : kind == 'U' ? 8 : 0;
        const auto number = digits == 0 ? 0 : std::stoul(shown.substr(i + 1, digits), nullptr, 16);
        const std::wstring units = number < 0x10000
                                       ? std::wstring(1, static_cast<wchar_t>(number))
                                       : std::wstring{static_cast<wchar_t>(0xD7C0 + (number >> 10)),
                                                      static_cast<wchar_t>(0xDC00 + (number & 0x3FF))};
        i += digits;
        text += kind == 'n'   ? "\n"
                : kind == 'r' ? "\r"
                : kind == 't' ? "\t"
                : kind == 'x' ? std::string(1, static_cast<char>(number))
                : digits != 0 ? Krt::YString(units.c_str()).Bytes()
                              : std::string(1, kind);
    }
    return text;
}

} // namespace

NameSet AwkwardNames()
{
    NameSet names;
    for (const std::string& piece : Pieces) {
        for (const std::string& name : {piece, "a" + piece, piece + "z", "a" + piece + "z", piece + piece})
            names.insert(name);
        for (const std::size_t length : {254, 255}) {
            std::string longest;
            while (longest.size() < length)
                longest += piece;
            names.insert(longest.substr(0, length));
        }
    }
    std::erase_if(names, [](const std::string& name) { return !IsName(name); });
    return names;
}

NameSet ShortNames(int step)
{
    NameSet names;
    for (int first = 1; first < 256; ++first) {
        names.insert(std::string(1, static_cast<char>(first)));
        for (int second = 1 + first % step; second < 256; second += step)
            names.insert({static_cast<char>(first), static_cast<char>(second)});
    }
    std::erase_if(names, [](const std::string& name) { return !IsName(name); });
    return names;
}

bool IsSteady(const std::string& line)
{
    const auto harms = [](wchar_t unit) {
        return unit < 0x20 || (unit >= 0x7f && unit < 0xa0) || (unit >= 0x2028 && unit <= 0x202e) ||
               (unit >= 0x2066 && unit <= 0x2069) || unit == 0x200e || unit == 0x200f || unit == 0x61c;
    };
    try {
        const std::wstring units(Krt::YString(line).AsWide());
        return std::none_of(units.begin(), units.end(), harms);
    } catch (const Krt::Exception::YError&) {
        return false;
    }
}

NameSet NamesIn(const std::string& text, const std::string& parent, const std::string& ending)
{
    NameSet names;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(IsSteady(line)) << line;
        const std::size_t at = line.find(parent + "/");
        if (at == std::string::npos || !line.ends_with(ending))
            continue;
        line.erase(line.size() - ending.size());
        names.insert(Unescaped(line.substr(at + parent.size() + 1)));
    }
    return names;
}

} // namespace Testing
