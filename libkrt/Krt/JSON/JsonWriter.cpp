#include "Krt/JSON/TextBuffer.h"
#include "Krt/JSON/YTextWriter.h"
#include "Krt/JSON/YValue.h"
#include "Krt/String/Ascii.h"

#include <boost/container/small_vector.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Krt::JSON {

namespace {

bool IsBetween(unsigned char byte, unsigned char low, unsigned char high)
{
    return byte >= low && byte <= high;
}

// Returns the length of the UTF-8 sequence of two or more bytes at the beginning of the text, if it may be
// written unchanged. Otherwise returns 0: for an invalid sequence (overlong forms, surrogates and numbers
// above U+10FFFF are invalid) and for the characters that represent bytes, U+EF80 to U+EFFF.
std::size_t PlainSequence(const char* text, std::size_t size)
{
    const auto at = [text](std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    const auto continues = [&at](std::size_t i) {
        return IsBetween(at(i), 0x80, 0xBF);
    };
    const unsigned char lead = at(0);
    if (IsBetween(lead, 0xC2, 0xDF))
        return size >= 2 && continues(1) ? 2 : 0;
    if (IsBetween(lead, 0xE0, 0xEF)) {
        if (size < 3 || !continues(1) || !continues(2))
            return 0;
        const bool isOverlong = lead == 0xE0 && at(1) < 0xA0;
        const bool isSurrogate = lead == 0xED && at(1) > 0x9F;
        const bool standsForByte = lead == 0xEE && at(1) > 0xBD;
        return isOverlong || isSurrogate || standsForByte ? 0 : 3;
    }
    if (IsBetween(lead, 0xF0, 0xF4)) {
        if (size < 4 || !continues(1) || !continues(2) || !continues(3))
            return 0;
        const bool isOverlong = lead == 0xF0 && at(1) < 0x90;
        const bool isTooLarge = lead == 0xF4 && at(1) > 0x8F;
        return isOverlong || isTooLarge ? 0 : 4;
    }
    return 0;
}

// True for ASCII bytes that a JSON string contains unchanged.
constexpr std::array<bool, 256> IsClean = [] {
    std::array<bool, 256> clean{};
    for (int byte = 0x20; byte < 0x80; ++byte)
        clean[byte] = byte != '"' && byte != '\\';
    return clean;
}();

// Checks eight bytes at once; the result is zero if all of them are clean. Only the top bit of each byte
// counts.
std::uint64_t UncleanBits(std::uint64_t word)
{
    constexpr std::uint64_t Ones = 0x0101010101010101;
    const std::uint64_t quote = word ^ (Ones * '"');
    const std::uint64_t backslash = word ^ (Ones * '\\');
    return (word | (word - Ones * 0x20) | (quote - Ones) | (backslash - Ones)) & (Ones * 0x80);
}

template <class Word>
Word Copy(char* out, const char* text)
{
    Word word;
    std::memcpy(&word, text, sizeof(word));
    std::memcpy(out, &word, sizeof(word));
    return word;
}

// Copies the text and returns true if all of it is clean; otherwise may have copied some of it. The last word
// overlaps the one before it if the size is not a multiple of the word size.
bool CopyClean(char* out, const char* text, std::size_t size)
{
    using Word = std::uint64_t;
    using HalfWord = std::uint32_t;
    const std::size_t last = size - (size >= sizeof(Word) ? sizeof(Word) : sizeof(HalfWord));
    if (size >= sizeof(Word)) {
        Word unclean = 0;
        for (std::size_t i = 0; i < last; i += sizeof(Word))
            unclean |= UncleanBits(Copy<Word>(out + i, text + i));
        return (unclean | UncleanBits(Copy<Word>(out + last, text + last))) == 0;
    }
    if (size >= sizeof(HalfWord)) {
        const Word first = Copy<HalfWord>(out, text);
        return UncleanBits(first << 32 | Copy<HalfWord>(out + last, text + last)) == 0;
    }
    for (std::size_t i = 0; i < size; ++i) {
        if (!IsClean[static_cast<unsigned char>(text[i])])
            return false;
        out[i] = text[i];
    }
    return true;
}

// Writes a byte that needs an escape sequence, and returns the end of the sequence, which has at most
// EscapeSize characters.
constexpr std::size_t EscapeSize = 6;
char* WriteEscaped(char* out, unsigned char byte)
{
    static constexpr char Letters[] = {'b', 't', 'n', 0, 'f', 'r'}; // for 0x08 to 0x0D
    if (byte >= 0x80) {
        *out++ = '\xEE';
        *out++ = static_cast<char>(0xBC | byte >> 6);
        *out++ = static_cast<char>(0x80 | (byte & 0x3F));
        return out;
    }
    *out++ = '\\';
    if (byte == '"' || byte == '\\') {
        *out++ = static_cast<char>(byte);
    } else if (IsBetween(byte, 0x08, 0x0D) && byte != 0x0B) {
        *out++ = Letters[byte - 0x08];
    } else {
        for (const char character :
             {'u', '0', '0', String::HexDigits[byte >> 4], String::HexDigits[byte & 0x0F]})
            *out++ = character;
    }
    return out;
}

// The opening quote is before `out`. After the text there is room for an escape sequence and the closing
// quote.
char* WriteUnclean(TextBuffer& buffer, char* out, std::string_view text)
{
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at < end) {
        if (IsClean[static_cast<unsigned char>(*at)]) {
            *out++ = *at++;
        } else if (const std::size_t plain = PlainSequence(at, end - at)) {
            out = std::copy_n(at, plain, out);
            at += plain;
        } else {
            // The escape sequence is longer than the byte, and room was reserved for the byte only.
            buffer.MoveTo(WriteEscaped(out, static_cast<unsigned char>(*at++)));
            out = buffer.Room(end - at + EscapeSize + 1);
        }
    }
    return out;
}

void WriteString(TextBuffer& buffer, std::string_view text)
{
    char* out = buffer.Room(text.size() + EscapeSize + 2); // with the quotes
    *out++ = '"';
    out = CopyClean(out, text.data(), text.size()) ? out + text.size() : WriteUnclean(buffer, out, text);
    *out++ = '"';
    buffer.MoveTo(out);
}

void WriteNumber(TextBuffer& buffer, unsigned long long number)
{
    constexpr std::size_t MostDigits = 20;
    char* const out = buffer.Room(MostDigits);
    buffer.MoveTo(std::to_chars(out, out + MostDigits, number).ptr);
}

// Open containers are on the writer's own stack, so that depth costs no recursion.
class Writer
{
public:
    Writer(std::string& out, bool compact) : m_out(out), m_compact(compact) {}
    void Write(const YValue* root);

private:
    struct Container
    {
        bool isArray;
        bool isEmpty; // so far
        std::size_t left;
        const boost::shared_ptr<YValue>* element; // the next one of an array
        const YObject::Entry* member;             // of an object
    };

    // Writes a scalar, or the beginning of a container.
    void Begin(const YValue* value);
    // Writes what precedes the next value, and returns that value.
    const YValue* NextMember(Container& container);
    void End();
    void BreakLine();

    TextBuffer m_out;
    const bool m_compact;
    boost::container::small_vector<Container, 16> m_open;
};

void Writer::Write(const YValue* root)
{
    Begin(root);
    while (!m_open.empty()) {
        Container& container = m_open.back();
        if (container.left == 0)
            End();
        else
            Begin(NextMember(container));
    }
}

void Writer::Begin(const YValue* value)
{
    if (!value) {
        m_out.Append("null");
    } else if (value->IsString()) {
        WriteString(m_out, value->AsString().Bytes());
    } else if (value->IsNumber()) {
        WriteNumber(m_out, value->AsNumber());
    } else if (value->IsBool()) {
        m_out.Append(value->AsBool() ? "true" : "false");
    } else if (value->IsArray()) {
        const YArray& array = value->AsArray();
        m_out.Append('[');
        m_open.push_back({true, true, array.size(), array.data(), nullptr});
    } else {
        const std::vector<YObject::Entry>& entries = value->AsObject().Entries();
        m_out.Append('{');
        m_open.push_back({false, true, entries.size(), nullptr, entries.data()});
    }
}

const YValue* Writer::NextMember(Container& container)
{
    if (!container.isEmpty)
        m_out.Append(',');
    container.isEmpty = false;
    BreakLine();
    --container.left;
    if (container.isArray)
        return (container.element++)->get();
    const YObject::Entry& entry = *container.member++;
    WriteString(m_out, entry.first.Bytes());
    m_out.Append(':');
    if (!m_compact)
        m_out.Append(' ');
    return entry.second.get();
}

void Writer::End()
{
    const Container container = m_open.back();
    m_open.pop_back();
    if (!container.isEmpty)
        BreakLine();
    m_out.Append(container.isArray ? ']' : '}');
}

void Writer::BreakLine()
{
    if (m_compact)
        return;
    const std::size_t blanks = 2 * m_open.size();
    m_out.Append('\n');
    m_out.MoveTo(std::fill_n(m_out.Room(blanks), blanks, ' '));
}

} // namespace

YString YValue::Stringify(bool compact) const
{
    std::string text;
    Writer(text, compact).Write(this);
    return YString(std::move(text));
}

void YValue::StringifyTo(std::string& out) const
{
    Writer(out, true).Write(this);
}

void YTextWriter::Number(unsigned long long number)
{
    Separate();
    WriteNumber(m_out, number);
}

void YTextWriter::String(std::string_view text)
{
    Separate();
    WriteString(m_out, text);
}

} // namespace Krt::JSON
