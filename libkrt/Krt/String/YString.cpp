#include "Krt/String/YString.h"

#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/String/Ascii.h"
#include "Krt/String/Encoding.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace Krt {

namespace {

constexpr std::array<unsigned char, 256> utf8GetChrSize = [] {
    std::array<unsigned char, 256> sizes{};
    for (unsigned int lead = 0; lead < sizes.size(); ++lead) {
        const bool single = lead < 0xC0 || lead >= 0xFE;
        sizes[lead] = single ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : lead < 0xFC ? 5 : 6;
    }
    return sizes;
}();

// The exported GetChrSize may be replaced by a program's own, so the compiler can't inline that one.
inline unsigned int ChrSize(char lead)
{
    return utf8GetChrSize[static_cast<unsigned char>(lead)];
}

// Characters are counted in 32 bits, so text of 4 GiB or more is refused.
void RequireCountable(const std::string& bytes)
{
    (void)NumericCast<unsigned int>(bytes.size() + 1);
}

// Returns true if each of the eight bytes is a character by itself and not NUL.
bool AreAscii(const char* text)
{
    constexpr std::uint64_t Ones = 0x0101010101010101;
    std::uint64_t word;
    std::memcpy(&word, text, sizeof(word));
    return ((word | (word - Ones)) & (Ones * 0x80)) == 0;
}

unsigned int CountCharacters(std::string_view bytes)
{
    unsigned int count = 0;
    std::size_t at = 0;
    while (at < bytes.size() && bytes[at] != '\0') {
        const bool eight = bytes.size() - at >= 8 && AreAscii(bytes.data() + at);
        count += eight ? 8 : 1;
        at += eight ? 8 : ChrSize(bytes[at]);
    }
    return count;
}

} // namespace

namespace String {

template <>
unsigned int GetChrSize<char>(const char* text)
{
    return ChrSize(*text);
}

} // namespace String

YString::YString(const char* text) : m_bytes(text != nullptr ? text : "") {}

YString::YString(char byte) : m_bytes(1, byte)
{
    Normalize();
}

YString::YString(const wchar_t* text)
{
    if (text != nullptr)
        m_bytes = String::Convert<wchar_t, char>(text).Cast<char>();
}

YString::YString(std::string_view bytes) : m_bytes(bytes.substr(0, bytes.find_last_not_of('\0') + 1)) {}

YString::YString(std::string&& bytes) noexcept : m_bytes(std::move(bytes))
{
    Normalize();
}

std::ostream& operator<<(std::ostream& out, const YString& text)
{
    return out << text.m_bytes;
}

YString& YString::operator=(const YString& other)
{
    DropWide();
    m_bytes = other.m_bytes;
    Normalize();
    return *this;
}

unsigned int YString::Length() const
{
    unsigned int count = CachedCount();
    if (count != Unknown)
        return count;
    RequireCountable(m_bytes);
    count = CountCharacters(m_bytes);
    m_count.store(count, std::memory_order_relaxed);
    return count;
}

const wchar_t* YString::AsWide() const
{
    if (!m_wide)
        m_wide = std::make_unique<Memory::YHeap<wchar_t>>(String::Convert<char, wchar_t>(CStr()));
    return *m_wide;
}

std::size_t YString::Locate(unsigned int index) const
{
    return index < m_bytes.size() ? Advance(0, index) : std::string::npos;
}

std::size_t YString::Advance(std::size_t offset, unsigned int characters) const
{
    if (characters != 0)
        RequireCountable(m_bytes);
    // Counting takes one pass, after which an index into text of single-byte characters is its offset.
    if (characters > 32)
        Length();
    if (IsSingleByte()) {
        offset += characters;
    } else {
        // A malformed tail may step over the terminator.
        for (; characters != 0 && offset <= m_bytes.size(); --characters)
            offset += ChrSize(m_bytes[offset]);
    }
    return offset <= m_bytes.size() ? offset : std::string::npos;
}

std::size_t YString::Search(std::string_view needle, std::size_t offset, unsigned int& index,
                            bool caseSensitive) const
{
    RequireCountable(m_bytes);
    if (caseSensitive && IsSingleByte()) {
        const std::size_t found = offset < m_bytes.size() ? m_bytes.find(needle, offset) : std::string::npos;
        index += static_cast<unsigned int>(found - offset);
        return found;
    }
    const std::string_view text = m_bytes;
    while (offset < text.size() && text[offset] != '\0') {
        if (String::Equals(text.substr(offset, needle.size()), needle, caseSensitive))
            return offset;
        offset += ChrSize(text[offset]);
        ++index;
    }
    return std::string::npos;
}

std::string_view YString::Text(std::size_t begin, std::size_t end) const
{
    const std::string_view text = std::string_view(m_bytes).substr(begin, end - begin);
    return text.substr(0, text.find('\0'));
}

unsigned int YString::Find(const char* needle, unsigned int start, bool caseSensitive) const
{
    const std::size_t offset = Locate(start);
    if (offset == std::string::npos)
        return NotFound;
    unsigned int index = start;
    return Search(needle, offset, index, caseSensitive) != std::string::npos ? index : NotFound;
}

YString YString::Section(YString delimiter, unsigned int start, unsigned int* next, bool caseSensitive) const
{
    const unsigned int found = Find(delimiter, start, caseSensitive);
    if (found == NotFound) {
        *next = NotFound;
        return Mid(start, NotFound);
    }
    *next += found - start + static_cast<unsigned int>(delimiter.m_bytes.size());
    if (*next >= Length())
        *next = NotFound;
    return Mid(start, found - start);
}

std::vector<YString> YString::SectionVector(YString delimiter, bool caseSensitive, bool skipEmpty) const
{
    // Like Section for each field, but continues where the last field ended: no text is scanned twice.
    std::vector<YString> fields;
    const auto step = static_cast<unsigned int>(delimiter.m_bytes.size());
    unsigned int position = 0;
    std::size_t begin = 0;
    while (begin != std::string::npos) {
        // Without a delimiter nothing would ever advance: all is one field.
        const std::size_t end =
            step == 0 ? std::string::npos : Search(delimiter.CStr(), begin, position, caseSensitive);
        YString field(Text(begin, end));
        if (!skipEmpty || !field.IsEmpty())
            fields.push_back(std::move(field));
        position += step;
        begin = end != std::string::npos && position < Length() ? Advance(end, step) : std::string::npos;
    }
    return fields;
}

std::vector<YString> YString::SectionVector(char delimiter, bool caseSensitive, bool skipEmpty) const
{
    return SectionVector(YString(delimiter), caseSensitive, skipEmpty);
}

YString YString::VectorSection(char delimiter, const std::vector<YString>& items)
{
    std::string text;
    for (const YString& item : items) {
        if (!text.empty())
            text += delimiter;
        text += item.m_bytes;
    }
    return YString(std::move(text));
}

std::pair<YString, YString> YString::Split(const YString& delimiter, bool caseSensitive) const
{
    if (IsEmpty())
        return {};
    const unsigned int found = Find(delimiter, 0, caseSensitive);
    if (found == NotFound)
        return {*this, YString()};
    return {Left(found), Right(Length() - found - delimiter.Length())};
}

std::pair<YString, YString> YString::Split(char delimiter, bool caseSensitive, bool escaped) const
{
    return Split(escaped ? '\\' + YString(delimiter) : YString(delimiter), caseSensitive);
}

YString YString::Mid(unsigned int start, unsigned int count) const
{
    const std::size_t begin = Locate(start);
    if (begin == std::string::npos)
        return YString();
    std::size_t end = std::string::npos;
    if (count != NotFound && std::size_t(start) + count < m_bytes.size())
        end = Advance(begin, count);
    return YString(Text(begin, end));
}

YString YString::Left(unsigned int count) const
{
    return Mid(0, count);
}

YString YString::Right(unsigned int count) const
{
    if (count >= m_bytes.size() || count >= Length())
        return Mid(0, NotFound);
    return Mid(Length() - count, NotFound);
}

const char& YString::At(unsigned int index) const
{
    const std::size_t offset = Locate(index);
    KRT_RAISE_UNLESS(offset < m_bytes.size(), ErrorCode::InvalidArgument);
    return m_bytes[offset];
}

bool YString::EndsWith(const YString& suffix, bool caseSensitive) const
{
    const unsigned int wanted = suffix.Length();
    if (wanted > Length())
        return false;
    const std::size_t tail = Advance(0, Length() - wanted);
    return tail == std::string::npos ? wanted == 0
                                     : String::Equals(Text(tail, std::string::npos),
                                                      suffix.Text(0, std::string::npos), caseSensitive);
}

unsigned int YString::Replace(const char* from, const char* to, unsigned int start, unsigned int maxCount,
                              bool caseSensitive)
{
    DropWide();
    const std::string_view pattern = from;
    const std::string_view replacement = to;
    std::size_t offset = Locate(start);
    if (pattern.empty() || m_bytes.empty())
        return 0;
    KRT_RAISE_UNLESS(offset < m_bytes.size(), ErrorCode::InvalidArgument);

    std::string result;
    std::size_t taken = 0;
    unsigned int count = 0;
    while ((offset = Search(pattern, offset, start, caseSensitive)) != std::string::npos) {
        result.append(m_bytes, taken, offset - taken).append(replacement);
        taken = offset += pattern.size();
        if (++count == maxCount)
            break;
    }
    if (count != 0) {
        result.append(m_bytes, taken);
        m_bytes = std::move(result);
        Normalize();
    }
    return count;
}

void YString::Truncate(unsigned int count)
{
    DropWide();
    const std::size_t end = Locate(count);
    if (end != std::string::npos) {
        m_bytes.resize(end);
        Normalize();
    }
}

void YString::TrimLeft(unsigned int count)
{
    DropWide();
    m_bytes.erase(0, Locate(count));
    Normalize();
}

void YString::TrimWhiteSpacesLeft()
{
    DropWide();
    m_bytes.erase(0, m_bytes.find_first_not_of(" \n\r"));
    Normalize();
}

void YString::TrimWhiteSpacesRight()
{
    DropWide();
    m_bytes.erase(m_bytes.find_last_not_of(" \n\r") + 1);
    Normalize();
}

unsigned int YString::Copy(const char* source, unsigned int maxChars)
{
    DropWide();
    const char* end = source;
    unsigned int taken = 0;
    for (; taken < maxChars && *end != '\0'; ++taken)
        end += strnlen(end, ChrSize(*end));
    m_bytes.assign(source, static_cast<std::size_t>(end - source));
    Normalize();
    return taken;
}

YString& YString::operator+=(const YString& other)
{
    DropWide();
    m_bytes += other.m_bytes;
    Normalize();
    return *this;
}

YString operator+(char first, const YString& rest)
{
    return YString(first + rest.Bytes());
}

YString operator+(const YString& first, const YString& rest)
{
    return YString(first.Bytes() + rest.Bytes());
}

} // namespace Krt
