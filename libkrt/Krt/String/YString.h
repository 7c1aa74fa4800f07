#pragma once

#include "Krt/Export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Krt {

namespace String {
/// Returns the number of bytes (1 to 6) of the character that begins with the lead byte `*text`.
template <class Char>
unsigned int GetChrSize(const Char* text);
/// Returns the number of bytes (1 to 6) of the UTF-8 character that begins with the lead byte `*text`.
template <>
KRT_API unsigned int GetChrSize<char>(const char* text);
} // namespace String

/// The text type. It contains UTF-8 and counts characters, whose sizes the lead bytes announce (see
/// GetChrSize); nothing is validated. Positions and counts are in characters; NotFound as a count means "to
/// the end". Operations that count characters raise InvalidArgument for a string of 4 GiB or more. A
/// case-sensitive comparison compares bytes; another one also ignores the case of ASCII letters. A string
/// has no lock. Reads cache the character count and the positions of characters atomically, so many threads
/// may read a string that no thread changes.
class KRT_API YString
{
public:
    static constexpr unsigned int NotFound = 0xFFFFFFFF; ///< not found; as a count, all characters

    YString() noexcept = default;
    YString(std::nullptr_t) noexcept {} ///< the empty string
    /// The bytes up to the first NUL; nullptr is the empty string.
    YString(const char* text);
    /// One byte, which may be a part of a character.
    explicit YString(char byte);
    /// Converts UTF-16 code units, one in each wchar_t, up to the first NUL unit. Raises InvalidUtf16.
    YString(const wchar_t* text);
    /// All bytes, including NUL bytes inside; trailing NUL bytes are removed, as by all operations.
    explicit YString(std::string_view bytes);
    /// Moves the bytes in; trailing NUL bytes are removed.
    explicit YString(std::string&& bytes) noexcept;
    /// The bytes of an iterator range.
    template <class Iterator>
    YString(Iterator first, Iterator last) : m_bytes(first, last)
    {
        Normalize();
    }
    /// Copies the bytes and the cached count.
    YString(const YString& other) : m_bytes(other.m_bytes), m_derived(ForCount(other.CachedCount())) {}
    /// Moves the bytes; `other` is empty afterwards.
    YString(YString&& other) noexcept : m_bytes(std::move(other.m_bytes)), m_derived(other.TakeDerived())
    {
        other.m_bytes.clear();
    }
    /// Copies the bytes.
    YString& operator=(const YString& other);
    /// Moves the bytes; `other` is empty afterwards.
    YString& operator=(YString&& other) noexcept
    {
        if (this != &other) {
            DropDerived();
            m_bytes = std::move(other.m_bytes);
            m_derived.store(other.TakeDerived(), std::memory_order_relaxed);
            other.m_bytes.clear();
        }
        return *this;
    }
    virtual ~YString() { DropDerived(); }

    /// The NUL-terminated bytes. Valid until the next change.
    const char* CStr() const noexcept { return m_bytes.c_str(); }
    /// The bytes with their number. Valid until the next change.
    const std::string& Bytes() const noexcept { return m_bytes; }
    /// Returns true if there are no bytes.
    bool IsEmpty() const noexcept { return m_bytes.empty(); }
    /// The number of characters up to the first NUL; counted once and cached.
    unsigned int Length() const;
    /// The text as NUL-terminated UTF-16 code units, one in each wchar_t. The first call creates it; this
    /// string owns it. Raises InvalidUtf8. Not for a string that threads share.
    const wchar_t* AsWide() const;

    /// Returns the position of the first match at or after `start`, or NotFound.
    unsigned int Find(const char* needle, unsigned int start, bool caseSensitive) const;
    /// Returns the position of the first match at or after `start`, or NotFound. The needle ends at its
    /// first NUL.
    unsigned int Find(const YString& needle, unsigned int start, bool caseSensitive) const
    {
        return Find(needle.CStr(), start, caseSensitive);
    }
    /// Returns the field at `start`. `*next` advances to the position after the delimiter, or becomes
    /// NotFound at the end. The delimiter's length is added in bytes, so `*next` is too large after a
    /// multi-byte delimiter.
    YString Section(YString delimiter, unsigned int start, unsigned int* next, bool caseSensitive) const;
    /// Returns all fields; with `skipEmpty` only the fields that are not empty.
    std::vector<YString> SectionVector(YString delimiter, bool caseSensitive, bool skipEmpty) const;
    /// Returns all fields; with `skipEmpty` only the fields that are not empty.
    std::vector<YString> SectionVector(char delimiter, bool caseSensitive, bool skipEmpty) const;
    /// Joins the items with the delimiter. Leading empty items get no delimiter.
    static YString VectorSection(char delimiter, const std::vector<YString>& items);
    /// Returns the parts before and after the first match, or `{*this, ""}` if there is no match.
    std::pair<YString, YString> Split(const YString& delimiter, bool caseSensitive) const;
    /// Returns the parts before and after the first match, or `{*this, ""}` if there is no match. With
    /// `escaped` the delimiter is a backslash and the character.
    std::pair<YString, YString> Split(char delimiter, bool caseSensitive, bool escaped) const;
    /// Returns at most `count` characters from `start`.
    YString Mid(unsigned int start, unsigned int count) const;
    /// Returns at most `count` characters from the beginning.
    YString Left(unsigned int count) const;
    /// Returns at most `count` characters from the end.
    YString Right(unsigned int count) const;
    /// The first byte of the character at `index`. Raises InvalidArgument after the last character.
    const char& At(unsigned int index) const;
    /// Returns true if the string ends with `suffix`, also for the empty suffix.
    bool EndsWith(const YString& suffix, bool caseSensitive) const;

    /// Replaces at most `maxCount` matches (0: all) from position `start`, and returns their number.
    /// Inserted text is not searched. Raises InvalidArgument if `start` is after the last character.
    unsigned int Replace(const char* from, const char* to, unsigned int start, unsigned int maxCount,
                         bool caseSensitive);
    /// Keeps the first `count` characters.
    void Truncate(unsigned int count);
    /// Removes the first `count` characters.
    void TrimLeft(unsigned int count);
    /// Removes leading blanks, line feeds and carriage returns, but not tabs.
    void TrimWhiteSpacesLeft();
    /// Removes trailing blanks, line feeds and carriage returns, but not tabs.
    void TrimWhiteSpacesRight();
    /// Replaces the content by at most `maxChars` characters of `source`, and returns their number.
    unsigned int Copy(const char* source, unsigned int maxChars);
    /// Appends the bytes of `other`.
    YString& operator+=(const YString& other);

    /// Compares bytes.
    friend bool operator==(const YString& a, const YString& b) noexcept { return a.m_bytes == b.m_bytes; }
    /// Compares bytes; nullptr is the empty string.
    friend bool operator==(const YString& a, const char* b) noexcept { return a.m_bytes == (b ? b : ""); }
    /// Orders by bytes as unsigned numbers; a prefix is less than the longer text.
    friend auto operator<=>(const YString& a, const YString& b) noexcept { return a.m_bytes <=> b.m_bytes; }
    /// Prints all bytes, as for a std::string.
    friend KRT_API std::ostream& operator<<(std::ostream& out, const YString& text);

private:
    static constexpr unsigned int Unknown = 0xFFFFFFFF;
    // What is derived from the bytes apart from the count of most strings: defined in the source.
    struct Derived;

    static std::uintptr_t ForCount(unsigned int count) noexcept
    {
        return count == Unknown ? 0 : std::uintptr_t{count} << 1 | 1;
    }
    unsigned int CachedCount() const noexcept
    {
        const std::uintptr_t derived = m_derived.load(std::memory_order_acquire);
        if ((derived & 1) != 0)
            return static_cast<unsigned int>(derived >> 1);
        return derived == 0 ? Unknown : CountIn(*reinterpret_cast<const Derived*>(derived));
    }
    static unsigned int CountIn(const Derived& derived) noexcept;
    // True if it is known that each character is one byte.
    bool IsSingleByte() const noexcept { return CachedCount() == m_bytes.size(); }
    KRT_HIDDEN Derived& GetDerived() const;
    // Byte offset of the character with this index, a multiple of the distance of the cached positions, or
    // npos past the end.
    KRT_HIDDEN std::size_t CachedPosition(unsigned int index) const;
    // Byte offset of a character, or npos past the end.
    std::size_t Locate(unsigned int index) const;
    // Byte offset of the character `characters` after the one at `offset`, or npos past the end.
    std::size_t Advance(std::size_t offset, unsigned int characters) const;
    // Byte offset of the first match at or after `offset`, or npos. `index` is the character index of
    // `offset`, and becomes that of the match.
    std::size_t Search(std::string_view needle, std::size_t offset, unsigned int& index,
                       bool caseSensitive) const;
    // The bytes between two offsets, up to the first NUL.
    std::string_view Text(std::size_t begin, std::size_t end) const;
    // A mutator begins with DropDerived, so that nothing outdated remains if it raises. It ends with
    // Normalize, which also drops what the mutator itself has derived from the former bytes.
    void DropDerived() noexcept
    {
        const std::uintptr_t derived = TakeDerived();
        if (derived != 0 && (derived & 1) == 0)
            Destroy(reinterpret_cast<Derived*>(derived));
    }
    static void Destroy(Derived* derived) noexcept;
    // Only the owner of the string calls it: a change excludes readers, so no read-modify-write is needed.
    std::uintptr_t TakeDerived() noexcept
    {
        const std::uintptr_t derived = m_derived.load(std::memory_order_relaxed);
        m_derived.store(0, std::memory_order_relaxed);
        return derived;
    }
    void Normalize() noexcept
    {
        while (!m_bytes.empty() && m_bytes.back() == '\0')
            m_bytes.pop_back();
        DropDerived();
    }

    std::string m_bytes;
    // 0 if nothing is known; an odd number if only the count is, which is the half of it; else a Derived,
    // which this string owns. Readers only replace 0 by a count, and either by a Derived, which then stays
    // until the string changes. So a reader may use the Derived that it has found without a lock.
    mutable std::atomic<std::uintptr_t> m_derived{0};
};

/// Concatenates a byte and a text.
KRT_API YString operator+(char first, const YString& rest);
/// Concatenates two texts.
KRT_API YString operator+(const YString& first, const YString& rest);

} // namespace Krt
