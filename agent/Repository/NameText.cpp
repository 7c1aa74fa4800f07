#include "agent/Repository/NameText.h"

#include "agent/Repository/PrintableRanges.h"
#include "agent/Repository/Utf8.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iterator>

namespace Agent::Repo {

namespace {

// The letters of escapes, and what they represent.
constexpr std::string_view Letters = "abtnvfr";
constexpr std::string_view Controls = "\a\b\t\n\v\f\r";

bool IsPlain(char byte)
{
    return byte >= ' ' && byte < '\x7F' && byte != '"' && byte != '\\';
}

void AppendEscape(const char* format, char32_t number, std::string& out)
{
    char escape[16];
    std::snprintf(escape, sizeof(escape), format, static_cast<unsigned int>(number));
    out += escape;
}

void AppendEscaped(char32_t code, std::string& out)
{
    const std::size_t control = code < 0x20 ? Controls.find(static_cast<char>(code)) : Controls.npos;
    if (code == '"' || code == '\\') {
        out += '\\';
        out += static_cast<char>(code);
    } else if (control != Controls.npos) {
        out += '\\';
        out += Letters[control];
    } else if (code < 0x20 || code == 0x7F) {
        AppendEscape("\\x%02x", code, out);
    } else if (code < 0x10000) {
        AppendEscape("\\u%04x", code, out);
    } else {
        AppendEscape("\\U%08x", code, out);
    }
}

// Reads a number of exactly `count` digits, and takes them from the text.
bool TakeDigits(std::string_view& text, std::size_t count, int base, unsigned int& number)
{
    if (text.size() < count)
        return false;
    const auto read = std::from_chars(text.data(), text.data() + count, number, base);
    if (read.ec != std::errc() || read.ptr != text.data() + count)
        return false;
    text.remove_prefix(count);
    return true;
}

// Appends what an escape represents. `text` begins after its backslash, and is moved to its end.
bool Unescape(std::string_view& text, std::string& name)
{
    if (text.empty())
        return false;
    const char letter = text.front();
    unsigned int number = 0;
    if (letter >= '0' && letter <= '7') {
        if (!TakeDigits(text, 3, 8, number) || number > 0xFF)
            return false;
        name += static_cast<char>(number);
        return true;
    }
    text.remove_prefix(1);
    if (letter == '"' || letter == '\\') {
        name += letter;
        return true;
    }
    if (const std::size_t control = Letters.find(letter); control != Letters.npos) {
        name += Controls[control];
        return true;
    }
    if (letter == 'x') {
        if (!TakeDigits(text, 2, 16, number))
            return false;
        name += static_cast<char>(number);
        return true;
    }
    if ((letter != 'u' && letter != 'U') || !TakeDigits(text, letter == 'u' ? 4 : 8, 16, number) ||
        number > 0x10FFFF || (number >= 0xD800 && number <= 0xDFFF))
        return false;
    AppendUtf8(number, name);
    return true;
}

} // namespace

bool IsPrintable(char32_t character)
{
    if (character < 0x7F)
        return character >= 0x20;
    const auto* const range =
        std::lower_bound(std::begin(PrintableRanges), std::end(PrintableRanges), character,
                         [](const CharacterRange& each, char32_t sought) { return each.last < sought; });
    return range != std::end(PrintableRanges) && character >= range->first;
}

void AppendQuotedName(std::string_view name, std::string& out)
{
    while (!name.empty()) {
        const std::size_t plain =
            static_cast<std::size_t>(std::find_if_not(name.begin(), name.end(), IsPlain) - name.begin());
        out += name.substr(0, plain);
        name.remove_prefix(plain);
        if (name.empty())
            return;
        const Utf8Character character = DecodeUtf8(name);
        if (character.size == 0)
            AppendEscape("\\x%02x", static_cast<unsigned char>(name.front()), out);
        else if (character.code >= 0x80 && IsPrintable(character.code))
            out += name.substr(0, character.size);
        else
            AppendEscaped(character.code, out);
        name.remove_prefix(std::max<std::size_t>(character.size, 1));
    }
}

bool UnquoteName(std::string_view text, std::string& name)
{
    name.clear();
    for (;;) {
        const std::size_t special = text.find_first_of("\"\\\n");
        name += text.substr(0, special);
        if (special == std::string_view::npos)
            return true;
        if (text[special] != '\\')
            return false;
        text.remove_prefix(special + 1);
        if (!Unescape(text, name))
            return false;
    }
}

bool IsEntryName(std::string_view name)
{
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

} // namespace Agent::Repo
