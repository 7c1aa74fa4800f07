#include "Krt/JSON/YValue.h"

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

// Length of the UTF-8 sequence of two or more bytes that begins the text and may be written as it stands: 0
// if there is no valid one, which counts overlong forms, surrogates and numbers above U+10FFFF out, and 0 for
// the characters that stand for bytes, U+EF80 to U+EFFF.
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

// Whether a byte is ASCII that stands for itself in a JSON string.
constexpr std::array<bool, 256> IsClean = [] {
    std::array<bool, 256> clean{};
    for (int byte = 0x20; byte < 0x80; ++byte)
        clean[byte] = byte != '"' && byte != '\\';
    return clean;
}();

// The same of eight bytes at once, looking at the top bit of each: zero if all of them are clean.
std::uint64_t UncleanBits(const char* text)
{
    constexpr std::uint64_t Ones = 0x0101010101010101;
    std::uint64_t word;
    std::memcpy(&word, text, sizeof(word));
    const std::uint64_t quote = word ^ (Ones * '"');
    const std::uint64_t backslash = word ^ (Ones * '\\');
    return (word | (word - Ones * 0x20) | (quote - Ones) | (backslash - Ones)) & (Ones * 0x80);
}

// Appends to a string, of which room is made in advance: most of what comes is a single character or a short
// name.
class Appender
{
public:
    explicit Appender(std::string& out) : m_out(out), m_end(out.size()) {}
    ~Appender() { m_out.resize(m_end); }
    Appender(const Appender&) = delete;
    Appender& operator=(const Appender&) = delete;

    // Where so many bytes may be written, to be followed by MoveTo.
    char* Room(std::size_t size)
    {
        if (m_out.size() - m_end < size) [[unlikely]]
            m_out.resize(m_end + std::max({size, m_end, FirstRoom}));
        return m_out.data() + m_end;
    }
    void MoveTo(const char* end) { m_end = static_cast<std::size_t>(end - m_out.data()); }

    void Append(char byte)
    {
        *Room(1) = byte;
        ++m_end;
    }
    void Append(std::string_view text) { MoveTo(std::copy(text.begin(), text.end(), Room(text.size()))); }

private:
    static constexpr std::size_t FirstRoom = 1000; // enough for most records

    std::string& m_out;
    std::size_t m_end;
};

// Writes the byte, which can't stand for itself, and returns the end of what it took, at most EscapeSize.
constexpr std::size_t EscapeSize = 6;
char* WriteEscaped(char* out, unsigned char byte)
{
    static constexpr char Letters[] = {'b', 't', 'n', 0, 'f', 'r'}; // for 0x08 to 0x0D
    static constexpr char Digits[] = "0123456789abcdef";
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
        for (const char character : {'u', '0', '0', Digits[byte >> 4], Digits[byte & 0x0F]})
            *out++ = character;
    }
    return out;
}

// Containers that are open stand on a stack of the writer's own, so that depth costs no recursion.
class Writer
{
public:
    Writer(std::string& out, bool compact) : m_out(out), m_compact(compact) {}
    void Write(const YValue* root);

private:
    struct Level
    {
        const YArray* array; // or else
        const std::vector<YObject::Entry>* entries;
        std::size_t next;
        std::size_t Size() const { return array ? array->size() : entries->size(); }
    };

    // Writes a value that holds no others, and opens one that does.
    void Begin(const YValue* value);
    const YValue* NextMember(Level& level);
    void End();
    void BreakLine();
    void WriteNumber(unsigned long long number);
    void WriteString(std::string_view text);

    Appender m_out;
    const bool m_compact;
    boost::container::small_vector<Level, 16> m_open;
};

void Writer::Write(const YValue* root)
{
    Begin(root);
    while (!m_open.empty()) {
        Level& level = m_open.back();
        if (level.next == level.Size()) {
            End();
            continue;
        }
        if (level.next > 0)
            m_out.Append(',');
        BreakLine();
        Begin(NextMember(level));
    }
}

void Writer::Begin(const YValue* value)
{
    if (!value) {
        m_out.Append("null");
    } else if (value->IsString()) {
        WriteString(value->AsString().Bytes());
    } else if (value->IsNumber()) {
        WriteNumber(value->AsNumber());
    } else if (value->IsBool()) {
        m_out.Append(value->AsBool() ? "true" : "false");
    } else if (value->IsArray()) {
        m_out.Append('[');
        m_open.push_back({&value->AsArray(), nullptr, 0});
    } else {
        m_out.Append('{');
        m_open.push_back({nullptr, &value->AsObject().Entries(), 0});
    }
}

const YValue* Writer::NextMember(Level& level)
{
    const std::size_t i = level.next++;
    if (level.array)
        return (*level.array)[i].get();
    const YObject::Entry& entry = (*level.entries)[i];
    WriteString(entry.first.Bytes());
    m_out.Append(':');
    if (!m_compact)
        m_out.Append(' ');
    return entry.second.get();
}

void Writer::End()
{
    const Level level = m_open.back();
    m_open.pop_back();
    if (level.next > 0)
        BreakLine();
    m_out.Append(level.array ? ']' : '}');
}

void Writer::BreakLine()
{
    if (m_compact)
        return;
    const std::size_t blanks = 2 * m_open.size();
    m_out.Append('\n');
    m_out.MoveTo(std::fill_n(m_out.Room(blanks), blanks, ' '));
}

void Writer::WriteNumber(unsigned long long number)
{
    constexpr std::size_t MostDigits = 20;
    char* const out = m_out.Room(MostDigits);
    m_out.MoveTo(std::to_chars(out, out + MostDigits, number).ptr);
}

void Writer::WriteString(std::string_view text)
{
    constexpr std::size_t Extra = EscapeSize + 2; // and the quotes
    const char* at = text.data();
    const char* const end = at + text.size();
    char* out = m_out.Room(text.size() + Extra);
    *out++ = '"';
    while (at < end) {
        if (end - at >= 8 && UncleanBits(at) == 0) {
            out = std::copy_n(at, 8, out);
            at += 8;
        } else if (IsClean[static_cast<unsigned char>(*at)]) {
            *out++ = *at++;
        } else if (const std::size_t plain = PlainSequence(at, end - at)) {
            out = std::copy_n(at, plain, out);
            at += plain;
        } else {
            // It takes more than its byte, for which alone there is room.
            m_out.MoveTo(WriteEscaped(out, static_cast<unsigned char>(*at++)));
            out = m_out.Room(end - at + Extra);
        }
    }
    *out++ = '"';
    m_out.MoveTo(out);
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

} // namespace Krt::JSON
