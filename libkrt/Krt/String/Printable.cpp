#include "Krt/String/Printable.h"

#include "Krt/String/Utf8.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace Krt::String {

namespace {

struct Range
{
    char32_t first;
    char32_t last;
};

// The code points that are written as escapes, in order. They are, by the Unicode Character Database:
// - controls (General_Category Cc), and the interlinear annotation marks U+FFF9 to U+FFFB
// - Default_Ignorable_Code_Point of DerivedCoreProperties.txt, which includes the marks of direction
// - White_Space of PropList.txt, and U+2800, which looks like a blank. U+0020 and the wide U+3000 stay.
constexpr std::array<Range, 21> Escaped{{
    {0x0000, 0x001F},   {0x007F, 0x00A0}, {0x00AD, 0x00AD}, {0x034F, 0x034F},   {0x061C, 0x061C},
    {0x115F, 0x1160},   {0x1680, 0x1680}, {0x17B4, 0x17B5}, {0x180B, 0x180F},   {0x2000, 0x200F},
    {0x2028, 0x202F},   {0x205F, 0x206F}, {0x2800, 0x2800}, {0x3164, 0x3164},   {0xFE00, 0xFE0F},
    {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0}, {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A},
    {0xE0000, 0xE0FFF},
}};

bool IsPrintable(char32_t code)
{
    const auto* const range =
        std::lower_bound(Escaped.begin(), Escaped.end(), code,
                         [](const Range& each, char32_t sought) { return each.last < sought; });
    return range == Escaped.end() || code < range->first;
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
        AppendEscape(code < 0x80 ? "\\x%02x" : code < 0x10000 ? "\\u%04x" : "\\U%08x", code, out);
    }
}

// JSON has escapes only for UTF-16 code units.
void AppendJsonEscape(char32_t code, std::string& out)
{
    if (code >= 0x10000) {
        AppendEscape("\\u%04x", 0xD800 + ((code - 0x10000) >> 10), out);
        code = 0xDC00 + (code & 0x3FF);
    }
    AppendEscape("\\u%04x", code, out);
}

// Returns true for bytes that are written unchanged, whatever surrounds them.
bool IsPlain(char byte)
{
    return byte >= 0x20 && byte < 0x7F && byte != '\\';
}

// Returns the size of a beginning of the text, a multiple of 8, whose bytes are all plain.
std::size_t SizeOfPlainWords(std::string_view text)
{
    constexpr std::uint64_t Ones = 0x0101010101010101;
    constexpr std::uint64_t HighBits = 0x80 * Ones;
    std::size_t size = 0;
    for (; text.size() - size >= sizeof(std::uint64_t); size += sizeof(std::uint64_t)) {
        std::uint64_t bytes;
        std::memcpy(&bytes, text.data() + size, sizeof bytes);
        // The high bit of a byte below 0x20, of 0x7F and of a backslash is set, and that of a byte from 0x80
        // on. A carry or borrow may also set that of a later byte, but only after such a byte.
        const std::uint64_t backslashes = bytes ^ '\\' * Ones;
        if (((bytes | (bytes - 0x20 * Ones) | (bytes + Ones) | (backslashes - Ones)) & HighBits) != 0)
            break;
    }
    return size;
}

bool IsPlainJson(char byte)
{
    return (byte >= 0x20 && byte < 0x7F) || byte == '\n';
}

} // namespace

void AppendPrintable(std::string& out, std::string_view text)
{
    while (!text.empty()) {
        std::size_t plain = SizeOfPlainWords(text);
        while (plain < text.size() && IsPlain(text[plain]))
            ++plain;
        out += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty())
            return;
        const Utf8Character character = DecodeUtf8(text);
        if (character.size == 0)
            AppendEscape("\\x%02x", static_cast<unsigned char>(text[0]), out);
        else if (character.code != '\\' && IsPrintable(character.code))
            out += text.substr(0, character.size);
        else
            AppendEscaped(character.code, out);
        text.remove_prefix(character.size == 0 ? 1 : character.size);
    }
}

// Quotation marks and backslashes of the text are JSON syntax, so everything plain is kept. A control is not
// part of any string: it is between two tokens, where a blank is equivalent.
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
        const Utf8Character character = DecodeUtf8(json);
        const std::size_t size = character.size == 0 ? 1 : character.size;
        if (character.size == 1 && character.code < 0x20)
            out += ' ';
        else if (character.size == 0 || IsPrintable(character.code))
            out += json.substr(0, size);
        else
            AppendJsonEscape(character.code, out);
        json.remove_prefix(size);
    }
}

} // namespace Krt::String
