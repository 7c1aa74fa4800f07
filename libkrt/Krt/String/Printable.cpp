#include "Krt/String/Printable.h"

#include <array>
#include <cstdio>

namespace Krt::String {

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
    case '\\':
        out += "\\\\";
        break;
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

// Bytes that stand for themselves whatever is around them.
bool IsPlain(char byte)
{
    return byte >= 0x20 && byte < 0x7F && byte != '\\';
}

bool IsPlainJson(char byte)
{
    return (byte >= 0x20 && byte < 0x7F) || byte == '\n';
}

} // namespace

void AppendPrintable(std::string& out, std::string_view text)
{
    while (!text.empty()) {
        std::size_t plain = 0;
        while (plain < text.size() && IsPlain(text[plain]))
            ++plain;
        out += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty())
            return;
        const Character character = Decode(text);
        if (character.size == 0)
            AppendEscape("\\x%02x", static_cast<unsigned char>(text[0]), out);
        else if (character.code != '\\' && IsPrintable(character.code))
            out += text.substr(0, character.size);
        else
            AppendEscaped(character.code, out);
        text.remove_prefix(character.size == 0 ? 1 : character.size);
    }
}

// A quotation mark or a backslash of the text is JSON's own, so everything plain stays. A control is not part
// of any string: it stands between two tokens, where a blank says the same.
void AppendPrintableJson(std::string& out, std::string_view json)
{
    while (!json.empty()) {
        std::size_t plain = 0;
        while (plain < json.size() && IsPlainJson(json[plain]))
            ++plain;
        out += json.substr(0, plain);
        json.remove_prefix(plain);
        if (json.empty())
            return;
        const Character character = Decode(json);
        const std::size_t size = character.size == 0 ? 1 : character.size;
        if (character.size == 1 && character.code < 0x20)
            out += ' ';
        else if (character.size == 0 || IsPrintable(character.code))
            out += json.substr(0, size);
        else
            AppendEscape("\\u%04x", character.code, out);
        json.remove_prefix(size);
    }
}

} // namespace Krt::String
