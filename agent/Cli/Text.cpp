#include "agent/Cli/Text.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace Agent {

namespace {

struct Character
{
    char32_t code;
    std::size_t size; // 0: the byte is no part of valid UTF-8
};

Character Decode(std::string_view text)
{
    const auto byte = [&](std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    if (byte(0) < 0x80)
        return {byte(0), 1};
    const std::size_t size = byte(0) < 0xC2   ? 0
                             : byte(0) < 0xE0 ? 2
                             : byte(0) < 0xF0 ? 3
                             : byte(0) < 0xF5 ? 4
                                              : 0;
    if (size == 0 || text.size() < size)
        return {0, 0};
    char32_t code = byte(0) & (0x7Fu >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return {0, 0};
        code = code << 6 | (byte(i) & 0x3Fu);
    }
    static constexpr std::array<char32_t, 5> Smallest{0, 0, 0x80, 0x800, 0x10000};
    const bool valid = code >= Smallest[size] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
    return {code, valid ? size : 0};
}

// Controls, and what reorders, joins or breaks lines of text.
bool IsPrintable(char32_t code)
{
    return code >= 0x20 && (code < 0x7F || code > 0x9F) && code != 0xAD && code != 0x61C &&
           (code < 0x200B || code > 0x200F) && (code < 0x2028 || code > 0x202E) &&
           (code < 0x2060 || code > 0x206F) && code != 0xFEFF && (code < 0xFFF9 || code > 0xFFFB);
}

void AppendEscape(const char* format, unsigned int number, std::string& out)
{
    char escape[16];
    std::snprintf(escape, sizeof escape, format, number);
    out += escape;
}

void AppendEscaped(char32_t code, std::string& out)
{
    switch (code) {
    case '\n':
        out += "\\n";
        break;
    case '\r':
        out += "\\r";
        break;
    case '\t':
        out += "\\t";
        break;
    default:
        AppendEscape(code < 0x80 ? "\\x%02x" : "\\u%04x", code, out);
    }
}

} // namespace

std::string Printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Character character = Decode(text);
        if (character.size == 0) {
            AppendEscape("\\x%02x", static_cast<unsigned char>(text[0]), out);
            text.remove_prefix(1);
            continue;
        }
        if (character.code == '\\')
            out += "\\\\";
        else if (IsPrintable(character.code))
            out += text.substr(0, character.size);
        else
            AppendEscaped(character.code, out);
        text.remove_prefix(character.size);
    }
    return out;
}

Krt::YString ReasonOf(const Krt::Exception::YError& error)
{
    std::string text = error.GetMessage().Bytes();
    if (error.GetType() == Krt::ExceptionType::OsError)
        text += (text.empty() ? "" : ": ") + std::generic_category().message(error.GetOsError());
    return text.empty() ? error.Describe() : Krt::YString(std::string_view(text));
}

std::string ShortSize(unsigned long long bytes)
{
    static constexpr std::array Units{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    double size = static_cast<double>(bytes);
    while (size >= 1024 && unit + 1 < Units.size()) {
        size /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.*f %s", unit == 0 ? 0 : 1, size, Units[unit]);
    return text;
}

std::string TimeText(unsigned long long seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    char text[64];
    if (gmtime_r(&time, &utc) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0)
        return std::to_string(static_cast<long long>(seconds));
    return text;
}

} // namespace Agent
