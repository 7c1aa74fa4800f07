#include "Krt/String/YString.h"

#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/String/Ascii.h"
#include "Krt/String/Encoding.h"

#include <array>
#include <bit>
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

using WordPair [[gnu::vector_size(16)]] = std::uint64_t;
using SignedBytes [[gnu::vector_size(16)]] = signed char;

// Returns all bits of each byte at `text` that is a character by itself and not NUL: those above 0.
auto AsciiBits(const char* text)
{
    SignedBytes bytes;
    std::memcpy(&bytes, text, sizeof(bytes));
    return bytes > SignedBytes{};
}

// Returns a word without the high bits if each byte at `text` is a character by itself and not NUL.
std::uint64_t NotAscii(const char* text)
{
    std::uint64_t word = 0;
    std::memcpy(&word, text, sizeof(word));
    return word | (word - 0x0101010101010101);
}

// Returns the size of a beginning of the text, a multiple of 8, in which each byte is a character by itself
// and not NUL.
std::size_t SizeOfAscii(std::string_view text)
{
    constexpr std::uint64_t HighBits = 0x8080808080808080;
    constexpr std::size_t Step = sizeof(SignedBytes);
    std::size_t size = 0;
    for (; text.size() - size >= 8 * Step; size += 8 * Step) {
        const auto at = [begin = text.data() + size](std::size_t i) {
            return AsciiBits(begin + i * Step);
        };
        // Not a loop, which GCC would not unroll.
        const auto all =
            std::bit_cast<WordPair>(at(0) & at(1) & at(2) & at(3) & at(4) & at(5) & at(6) & at(7));
        if ((all[0] & all[1]) != ~std::uint64_t{0})
            break;
    }
    while (text.size() - size >= 8 && (NotAscii(text.data() + size) & HighBits) == 0)
        size += 8;
    return size;
}

unsigned int CountCharacters(std::string_view bytes)
{
    unsigned int count = 0;
    std::size_t at = 0;
    while (at < bytes.size() && bytes[at] != '\0') {
        const std::size_t ascii = SizeOfAscii(bytes.substr(at));
        count += ascii != 0 ? static_cast<unsigned int>(ascii) : 1;
        at += ascii != 0 ? ascii : ChrSize(bytes[at]);
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
    DropDerived();
    m_bytes = other.m_bytes;
    Normalize();
    return *this;
}

// A text whose characters have different sizes remembers where each Distance-th character begins when one is
// asked for by its index. The positions never change until the text does, so threads may share them.
struct YString::Derived
{
    using Positions = std::vector<std::uint32_t>;
    static constexpr unsigned int Distance = 16;

    explicit Derived(unsigned int knownCount) : count(knownCount) {}
    ~Derived() { delete positions.load(std::memory_order_relaxed); }
    Derived(const Derived&) = delete;
    Derived& operator=(const Derived&) = delete;

    std::atomic<unsigned int> count;                  // or Unknown
    std::atomic<const Positions*> positions{nullptr}; // of each Distance-th character, in bytes
    std::unique_ptr<Memory::YHeap<wchar_t>> wide;     // see AsWide; without synchronization
};

unsigned int YString::CountIn(const Derived& derived) noexcept
{
    return derived.count.load(std::memory_order_relaxed);
}

void YString::Destroy(Derived* derived) noexcept
{
    delete derived;
}

// Other threads may call it for the same text; the first one publishes what all use.
YString::Derived& YString::GetDerived() const
{
    static_assert(sizeof(std::uintptr_t) > sizeof(unsigned int), "a count and its mark fit");
    std::uintptr_t known = m_derived.load(std::memory_order_acquire);
    const auto isDerived = [&known] {
        return known != 0 && (known & 1) == 0;
    };
    if (isDerived())
        return *reinterpret_cast<Derived*>(known);
    auto made = std::make_unique<Derived>(Unknown);
    do {
        if (isDerived())
            return *reinterpret_cast<Derived*>(known);
        made->count = known == 0 ? Unknown : static_cast<unsigned int>(known >> 1);
    } while (!m_derived.compare_exchange_weak(known, reinterpret_cast<std::uintptr_t>(made.get()),
                                              std::memory_order_acq_rel, std::memory_order_acquire));
    return *made.release();
}

unsigned int YString::Length() const
{
    unsigned int count = CachedCount();
    if (count != Unknown)
        return count;
    RequireCountable(m_bytes);
    count = CountCharacters(m_bytes);
    std::uintptr_t known = 0;
    if (!m_derived.compare_exchange_strong(known, ForCount(count), std::memory_order_acq_rel,
                                           std::memory_order_acquire) &&
        (known & 1) == 0)
        reinterpret_cast<Derived*>(known)->count.store(count, std::memory_order_relaxed);
    return count;
}

const wchar_t* YString::AsWide() const
{
    Derived& derived = GetDerived();
    if (!derived.wide)
        derived.wide = std::make_unique<Memory::YHeap<wchar_t>>(String::Convert<char, wchar_t>(CStr()));
    return *derived.wide;
}

std::size_t YString::Locate(unsigned int index) const
{
    if (index >= m_bytes.size())
        return std::string::npos;
    if (index < Derived::Distance || Length() == m_bytes.size())
        return Advance(0, index);
    const std::size_t before = CachedPosition(index - index % Derived::Distance);
    return before == std::string::npos ? before : Advance(before, index % Derived::Distance);
}

std::size_t YString::CachedPosition(unsigned int index) const
{
    Derived& derived = GetDerived();
    const Derived::Positions* positions = derived.positions.load(std::memory_order_acquire);
    if (positions == nullptr) {
        auto made = std::make_unique<Derived::Positions>();
        for (std::size_t at = 0; at != std::string::npos; at = Advance(at, Derived::Distance))
            made->push_back(static_cast<std::uint32_t>(at));
        if (derived.positions.compare_exchange_strong(positions, made.get(), std::memory_order_acq_rel,
                                                      std::memory_order_acquire))
            positions = made.release();
    }
    const std::size_t number = index / Derived::Distance;
    return number < positions->size() ? (*positions)[number] : std::string::npos;
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
    const std::string_view text = m_bytes;
    if (!caseSensitive) {
        while (offset < text.size() && text[offset] != '\0') {
            if (String::Equals(text.substr(offset, needle.size()), needle, false))
                return offset;
            offset += ChrSize(text[offset]);
            ++index;
        }
        return std::string::npos;
    }
    while (offset < text.size()) {
        const std::size_t found = text.find(needle, offset);
        if (found == std::string::npos)
            return found;
        // A match counts if a character begins there, to which the index belongs.
        while (offset < found && text[offset] != '\0') {
            const std::size_t ascii =
                IsSingleByte() ? found - offset : SizeOfAscii(text.substr(offset, found - offset));
            index += ascii != 0 ? static_cast<unsigned int>(ascii) : 1;
            offset += ascii != 0 ? ascii : ChrSize(text[offset]);
        }
        if (offset <= found)
            return offset == found && text[found] != '\0' ? found : std::string::npos;
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
    DropDerived();
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
    DropDerived();
    const std::size_t end = Locate(count);
    if (end != std::string::npos) {
        m_bytes.resize(end);
        Normalize();
    }
}

void YString::TrimLeft(unsigned int count)
{
    DropDerived();
    m_bytes.erase(0, Locate(count));
    Normalize();
}

void YString::TrimWhiteSpacesLeft()
{
    DropDerived();
    m_bytes.erase(0, m_bytes.find_first_not_of(" \n\r"));
    Normalize();
}

void YString::TrimWhiteSpacesRight()
{
    DropDerived();
    m_bytes.erase(m_bytes.find_last_not_of(" \n\r") + 1);
    Normalize();
}

unsigned int YString::Copy(const char* source, unsigned int maxChars)
{
    DropDerived();
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
    DropDerived();
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
