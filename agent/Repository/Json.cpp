#include "agent/Repository/Json.h"

#include "agent/Repository/Failure.h"
#include "agent/Repository/Utf8.h"

#include "Krt/String/Ascii.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>

namespace Agent::Repo {

namespace {

constexpr std::size_t DepthLimit = 10'000;
constexpr char Base64Characters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char NoBase64 = 0xFF;

constexpr std::array<unsigned char, 256> MakeBase64Values()
{
    std::array<unsigned char, 256> values{};
    values.fill(NoBase64);
    for (unsigned char i = 0; i < 64; ++i)
        values[static_cast<unsigned char>(Base64Characters[i])] = i;
    return values;
}

// The number of bytes that the text represents, if it is valid.
std::size_t Base64Size(std::string_view text)
{
    const std::size_t pads = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
    return text.size() / 4 * 3 - std::min(pads, text.size() / 4 * 3);
}

// Writes Base64Size(text) bytes.
bool DecodeBase64(std::string_view text, unsigned char* out)
{
    static constexpr std::array<unsigned char, 256> Values = MakeBase64Values();
    if (text.size() % 4 != 0)
        return false;
    unsigned char* const end = out + Base64Size(text);
    for (std::size_t at = 0; at < text.size(); at += 4) {
        unsigned int group = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const char character = text[at + i];
            const bool isPad =
                character == '=' && at + 4 == text.size() && (i == 3 || (i == 2 && text[at + 3] == '='));
            const unsigned char value = isPad ? 0 : Values[static_cast<unsigned char>(character)];
            if (value == NoBase64)
                return false;
            group = group << 6 | value;
        }
        for (int shift = 16; shift >= 0 && out != end; shift -= 8)
            *out++ = static_cast<unsigned char>(group >> shift);
    }
    return true;
}

bool IsDigit(char byte)
{
    return byte >= '0' && byte <= '9';
}

bool IsHighSurrogate(char32_t unit)
{
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsLowSurrogate(char32_t unit)
{
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// The ASCII characters that are not control characters and not among these.
constexpr std::array<bool, 256> MakeSet(std::string_view without)
{
    std::array<bool, 256> set{};
    for (std::size_t byte = 0x20; byte < 0x80; ++byte)
        set[byte] = without.find(static_cast<char>(byte)) == std::string_view::npos;
    return set;
}

// What is written as it is.
bool IsPlain(char byte)
{
    static constexpr std::array<bool, 256> Plain = MakeSet("\"\\<>&");
    return Plain[static_cast<unsigned char>(byte)];
}

// What is read as it is.
bool IsOrdinary(char byte)
{
    static constexpr std::array<bool, 256> Ordinary = MakeSet("\"\\");
    return Ordinary[static_cast<unsigned char>(byte)];
}

// Appends the first character of the text, which is not plain. Returns the number of its bytes.
std::size_t AppendEscaped(std::string_view text, std::string& out)
{
    static constexpr std::string_view Named = "\"\\\b\f\n\r\t";
    static constexpr std::string_view Letters = "\"\\bfnrt";
    const auto byte = static_cast<unsigned char>(text.front());
    const std::size_t named = Named.find(text.front());
    const Utf8Character character = DecodeUtf8(text);
    if (named != std::string_view::npos) {
        out += '\\';
        out += Letters[named];
    } else if (byte < 0x80) {
        out += "\\u00";
        Krt::String::AppendHex(out, text.substr(0, 1));
    } else if (character.size == 0) {
        out += "\\ufffd";
    } else if (character.code == 0x2028 || character.code == 0x2029) {
        out += character.code == 0x2028 ? "\\u2028" : "\\u2029";
    } else {
        out += text.substr(0, character.size);
    }
    return std::max<std::size_t>(character.size, 1);
}

} // namespace

void JoinRepeated(std::vector<RawMember>& members)
{
    if (members.size() < 2)
        return;
    std::map<std::string_view, std::size_t> places;
    std::size_t count = 0;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (const auto found = places.find(members[i].key); found != places.end()) {
            members[found->second].json = std::move(members[i].json);
            continue;
        }
        if (count != i)
            members[count] = std::move(members[i]);
        places.emplace(members[count].key, count);
        ++count;
    }
    members.resize(count);
}

bool IsKey(std::string_view key, std::string_view member)
{
    if (key == member) [[likely]]
        return true;
    return Krt::String::Equals(key, member, false);
}

void JsonReader::RaiseDamagedAt(std::size_t offset, const char* reason) const
{
    REPOSITORY_RAISE(Failure::Damaged, "damaged at offset " << offset << ": " << reason);
}

void JsonReader::RaiseDamaged(const char* reason) const
{
    RaiseDamagedAt(m_offset, reason);
}

// The first byte of the next part.
char JsonReader::Peek()
{
    for (;; ++m_offset) {
        if (m_offset >= m_lookAt)
            PassLook();
        const char byte = m_text[m_offset];
        if (byte != ' ' && byte != '\n' && byte != '\t' && byte != '\r')
            return byte;
    }
}

// Looks in the middle of the text, and raises at its end.
void JsonReader::PassLook()
{
    if (m_offset >= m_text.size())
        RaiseDamaged("the JSON text is cut off");
    Look();
    m_lookAt = std::min(m_text.size(), m_offset + LookStep);
}

void JsonReader::Take(char byte, const char* reason)
{
    if (Peek() != byte)
        RaiseDamaged(reason);
    ++m_offset;
}

bool JsonReader::TakeWord(std::string_view word)
{
    if (Peek() != word.front() || m_text.substr(m_offset, word.size()) != word)
        return false;
    m_offset += word.size();
    m_isFirst = false;
    return true;
}

void JsonReader::BeginObject()
{
    Take('{', "an object is expected");
    m_isFirst = true;
}

void JsonReader::BeginArray()
{
    Take('[', "an array is expected");
    m_isFirst = true;
}

// Consumes what separates members or items, or the end of their container.
bool JsonReader::Follows(char end)
{
    if (Peek() == end) {
        ++m_offset;
        m_isFirst = false;
        return false;
    }
    if (!m_isFirst)
        Take(',', "a comma is expected");
    return true;
}

bool JsonReader::NextKey(std::string_view& key)
{
    if (!Follows('}'))
        return false;
    key = TakeString(m_key);
    Take(':', "a colon is expected");
    return true;
}

bool JsonReader::NextItem()
{
    return Follows(']');
}

bool JsonReader::IsNull()
{
    return TakeWord("null");
}

bool JsonReader::Bool()
{
    if (TakeWord("true"))
        return true;
    if (!TakeWord("false"))
        RaiseDamaged("true or false is expected");
    return false;
}

std::string_view JsonReader::String()
{
    return TakeString(m_string);
}

std::string_view JsonReader::TakeString(std::string& decoded)
{
    Take('"', "a string is expected");
    const std::size_t begin = m_offset;
    bool isPlain = true;
    std::size_t end = m_offset;
    for (;;) {
        const std::size_t stop = std::min(m_text.size(), end + LookStep);
        while (end < stop && IsOrdinary(m_text[end]))
            ++end;
        if (end >= m_text.size())
            RaiseDamagedAt(end, "the JSON text is cut off");
        if (end == stop) {
            Look();
            continue;
        }
        const auto byte = static_cast<unsigned char>(m_text[end]);
        if (byte == '"')
            break;
        if (byte < 0x20)
            RaiseDamagedAt(end, "a string has a control character");
        isPlain = false;
        end += byte == '\\' ? 2 : 1;
    }
    m_offset = end + 1;
    m_isFirst = false;
    if (isPlain)
        return m_text.substr(begin, end - begin);
    decoded.clear();
    Decode(begin, end, decoded);
    return decoded;
}

// Appends what the text of a string represents. A backslash is not its last byte.
void JsonReader::Decode(std::size_t begin, std::size_t end, std::string& out) const
{
    for (std::size_t at = begin; at < end;) {
        const char byte = m_text[at];
        if (byte != '\\') {
            const Utf8Character character = DecodeUtf8(m_text.substr(at, end - at));
            if (character.size == 0)
                AppendUtf8(0xFFFD, out);
            else
                out.append(m_text, at, character.size);
            at += std::max<std::size_t>(character.size, 1);
            continue;
        }
        static constexpr std::string_view Escapes = "\"\\/bfnrt";
        static constexpr std::string_view Meanings = "\"\\/\b\f\n\r\t";
        const std::size_t simple = Escapes.find(m_text[at + 1]);
        if (simple != std::string_view::npos) {
            out += Meanings[simple];
            at += 2;
            continue;
        }
        if (m_text[at + 1] != 'u')
            RaiseDamagedAt(at, "an escape is not known");
        char32_t code = DecodeUnit(at, end);
        at += 6;
        if (IsHighSurrogate(code) && end - at >= 2 && m_text[at] == '\\' && m_text[at + 1] == 'u') {
            const char32_t low = DecodeUnit(at, end);
            if (IsLowSurrogate(low)) {
                code = 0x10000 + ((code & 0x3FF) << 10) + (low & 0x3FF);
                at += 6;
            }
        }
        AppendUtf8(code, out);
    }
}

// The number of an escape \uhhhh.
char32_t JsonReader::DecodeUnit(std::size_t at, std::size_t end) const
{
    constexpr std::size_t Size = 6;
    unsigned int unit = 0;
    if (end - at >= Size) {
        const char* const digits = m_text.data() + at + 2;
        const auto read = std::from_chars(digits, digits + 4, unit, 16);
        if (read.ec == std::errc() && read.ptr == digits + 4)
            return unit;
    }
    RaiseDamagedAt(at, "an escape is not known");
}

std::uint64_t JsonReader::Unsigned(std::uint64_t limit)
{
    if (!IsDigit(Peek()))
        RaiseDamaged("a number of digits is expected");
    const char* const begin = m_text.data() + m_offset;
    std::uint64_t number = 0;
    const auto read = std::from_chars(begin, m_text.data() + m_text.size(), number);
    const std::size_t size = static_cast<std::size_t>(read.ptr - begin);
    if (read.ec != std::errc() || number > limit)
        RaiseDamaged("a number is too large");
    const char next = m_offset + size < m_text.size() ? *read.ptr : '\0';
    if ((size > 1 && *begin == '0') || next == '.' || next == 'e' || next == 'E')
        RaiseDamaged("a number of digits is expected");
    m_offset += size;
    m_isFirst = false;
    return number;
}

Id JsonReader::ReadId()
{
    Peek();
    const std::size_t begin = m_offset;
    const std::optional<Id> id = Id::FromHex(String());
    if (!id)
        RaiseDamagedAt(begin, "an id is expected");
    return *id;
}

Timestamp JsonReader::Time()
{
    Peek();
    const std::size_t begin = m_offset;
    const std::optional<Timestamp> time = Timestamp::Parse(String());
    if (!time)
        RaiseDamagedAt(begin, "a time with a zone is expected");
    return *time;
}

void JsonReader::Binary(Bytes& out)
{
    Peek();
    const std::size_t begin = m_offset;
    const std::string_view text = String();
    out.resize(Base64Size(text));
    if (!DecodeBase64(text, out.data()))
        RaiseDamagedAt(begin, "bytes in Base64 are expected");
}

void JsonReader::BinarySecret(std::span<unsigned char> out)
{
    Take('"', "a string is expected");
    const std::size_t size = m_text.substr(m_offset).find('"');
    const std::string_view text = m_text.substr(m_offset, size);
    if (size == std::string_view::npos || Base64Size(text) != out.size() || !DecodeBase64(text, out.data()))
        RaiseDamaged("bytes in Base64 are expected");
    m_offset += size + 1;
    m_isFirst = false;
}

void JsonReader::Strings(std::vector<std::string>& out)
{
    out.clear();
    if (IsNull())
        return;
    BeginArray();
    while (NextItem())
        out.emplace_back(String());
}

void JsonReader::SkipDigits()
{
    if (m_offset >= m_text.size() || !IsDigit(m_text[m_offset]))
        RaiseDamaged("a digit is expected");
    while (m_offset < m_text.size() && IsDigit(m_text[m_offset]))
        ++m_offset;
}

void JsonReader::SkipNumber()
{
    if (IsAt('-'))
        ++m_offset;
    if (IsAt('0'))
        ++m_offset;
    else
        SkipDigits();
    if (IsAt('.')) {
        ++m_offset;
        SkipDigits();
    }
    if (IsAt('e') || IsAt('E')) {
        ++m_offset;
        if (IsAt('+') || IsAt('-'))
            ++m_offset;
        SkipDigits();
    }
    m_isFirst = false;
}

void JsonReader::SkipScalar()
{
    const char first = Peek();
    if (first == '"')
        String();
    else if (first == '-' || IsDigit(first))
        SkipNumber();
    else if (!TakeWord("true") && !TakeWord("false") && !TakeWord("null"))
        RaiseDamaged("a value is expected");
}

std::string_view JsonReader::Skip()
{
    Peek();
    const std::size_t begin = m_offset;
    std::vector<bool> isObject; // of each open container
    std::string_view key;
    do {
        const char first = Peek();
        if (first == '{' || first == '[') {
            if (isObject.size() >= DepthLimit)
                RaiseDamaged("too many levels");
            isObject.push_back(first == '{');
            ++m_offset;
            m_isFirst = true;
        } else {
            SkipScalar();
        }
        while (!isObject.empty() && !(isObject.back() ? NextKey(key) : NextItem()))
            isObject.pop_back();
    } while (!isObject.empty());
    return m_text.substr(begin, m_offset - begin);
}

void JsonReader::Keep(std::string key, std::vector<RawMember>& members)
{
    const std::string_view json = Skip();
    members.push_back({std::move(key), std::string(json)});
}

void JsonReader::End()
{
    const std::size_t rest = m_text.find_first_not_of(" \n\t\r", m_offset);
    if (rest != std::string_view::npos)
        RaiseDamagedAt(rest, "more text follows the value");
    m_offset = m_text.size();
}

void JsonWriter::Separate()
{
    if (m_follows)
        m_out += ',';
    m_follows = true;
}

void JsonWriter::Begin(char bracket)
{
    Separate();
    m_out += bracket;
    m_follows = false;
}

void JsonWriter::End(char bracket)
{
    m_out += bracket;
    m_follows = true;
}

void JsonWriter::Key(std::string_view key)
{
    String(key);
    m_out += ':';
    m_follows = false;
}

void JsonWriter::String(std::string_view text)
{
    Separate();
    m_out += '"';
    while (!text.empty()) {
        const auto special = std::find_if_not(text.begin(), text.end(), IsPlain);
        const auto plain = static_cast<std::size_t>(special - text.begin());
        m_out += text.substr(0, plain);
        text.remove_prefix(plain);
        if (!text.empty())
            text.remove_prefix(AppendEscaped(text, m_out));
    }
    m_out += '"';
}

void JsonWriter::Number(std::uint64_t number)
{
    Separate();
    char digits[20];
    m_out.append(digits, std::to_chars(digits, std::end(digits), number).ptr);
}

void JsonWriter::Bool(bool value)
{
    Raw(value ? "true" : "false");
}

void JsonWriter::WriteId(const Id& id)
{
    Separate();
    m_out += '"';
    id.AppendHex(m_out);
    m_out += '"';
}

void JsonWriter::Time(const Timestamp& time)
{
    Separate();
    m_out += '"';
    time.AppendTo(m_out);
    m_out += '"';
}

void JsonWriter::Binary(ByteView bytes)
{
    Separate();
    m_out += '"';
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        unsigned int group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < count ? bytes[at + i] : 0u);
        for (std::size_t i = 0; i < 4; ++i)
            m_out += i <= count ? Base64Characters[group >> (18 - 6 * i) & 63] : '=';
    }
    m_out += '"';
}

void JsonWriter::Strings(const std::vector<std::string>& texts)
{
    BeginArray();
    for (const std::string& text : texts)
        String(text);
    EndArray();
}

void JsonWriter::Raw(std::string_view json)
{
    Separate();
    m_out += json;
}

void JsonWriter::Members(const std::vector<RawMember>& members)
{
    for (const RawMember& member : members) {
        Key(member.key);
        Raw(member.json);
    }
}

} // namespace Agent::Repo
