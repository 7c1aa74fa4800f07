// YString: the one text type. It holds UTF-8 and counts in characters, where a character is what the lead
// byte announces (see GetChrSize): nothing is validated. Positions and counts are characters; NotFound also
// means "to the end" in count arguments. "Case-sensitive" compares bytes; otherwise ASCII letters alone fold.
// A string has no lock; reads fill the cached character count, which is atomic, so a string that nobody
// changes may be read by many threads.
#pragma once

#include "Krt/Export.h"
#include "Krt/Memory/YHeap.h"

#include <atomic>
#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Krt {

namespace String {
/// Bytes of the character that begins with this lead byte: 1 to 6.
template <class Char>
unsigned int GetChrSize(const Char* text);
template <>
KRT_API unsigned int GetChrSize<char>(const char* text);
} // namespace String

class KRT_API YString
{
public:
    static constexpr unsigned int NotFound = 0xFFFFFFFF; ///< no such place; as a count, all

    YString() noexcept = default;
    YString(std::nullptr_t) noexcept {} ///< the empty string
    /// The bytes up to the first NUL; null gives the empty string.
    YString(const char* text);
    /// One byte, which may be part of a character.
    explicit YString(char byte);
    /// UTF-16 code units, one a wchar_t, up to the first NUL unit. Raises InvalidUtf16.
    YString(const wchar_t* text);
    /// All bytes, NUL bytes inside kept; those at the end are stripped, as always.
    explicit YString(std::string_view bytes);
    explicit YString(std::string&& bytes) noexcept;
    /// The bytes between two places.
    template <class Iterator>
    YString(Iterator first, Iterator last) : m_bytes(first, last)
    {
        Normalize();
    }
    YString(const YString& other) : m_bytes(other.m_bytes), m_count(other.CachedCount()) {}
    YString(YString&& other) noexcept : m_bytes(std::move(other.m_bytes)), m_count(other.CachedCount())
    {
        other.Clear();
    }
    YString& operator=(const YString& other);
    YString& operator=(YString&& other) noexcept
    {
        if (this != &other) {
            DropWide();
            m_bytes = std::move(other.m_bytes);
            Normalize();
            other.Clear();
        }
        return *this;
    }
    virtual ~YString() = default;

    /// The bytes, NUL-terminated behind the last; valid until the next change.
    const char* CStr() const noexcept { return m_bytes.c_str(); }
    /// The bytes with their number; valid until the next change.
    const std::string& Bytes() const noexcept { return m_bytes; }
    /// Whether there are no bytes.
    bool IsEmpty() const noexcept { return m_bytes.empty(); }
    /// Characters up to the first NUL; counted once and cached.
    unsigned int Length() const;
    /// The text as UTF-16 code units, one a wchar_t, NUL-terminated, made at the first call and owned by this
    /// string; raises InvalidUtf8. Not for a string that threads share.
    const wchar_t* AsWide() const;

    /// Where the needle is found first at or behind `start`, or NotFound.
    unsigned int Find(const char* needle, unsigned int start, bool caseSensitive) const;
    unsigned int Find(const YString& needle, unsigned int start, bool caseSensitive) const
    {
        return Find(needle.CStr(), start, caseSensitive);
    }
    /// The field at `start`; `*next` advances behind the delimiter, or becomes NotFound at the end. The
    /// delimiter's length goes in as bytes, so a multi-byte delimiter lands too far.
    YString Section(YString delimiter, unsigned int start, unsigned int* next, bool caseSensitive) const;
    /// All fields, with `skipEmpty` without the empty ones; and the reverse.
    std::vector<YString> SectionVector(YString delimiter, bool caseSensitive, bool skipEmpty) const;
    std::vector<YString> SectionVector(char delimiter, bool caseSensitive, bool skipEmpty) const;
    static YString VectorSection(char delimiter, const std::vector<YString>& items);
    /// What stands before and behind the first match; the whole and nothing if there is none.
    std::pair<YString, YString> Split(const YString& delimiter, bool caseSensitive) const;
    /// With `escaped` the delimiter is a backslash and then the character.
    std::pair<YString, YString> Split(char delimiter, bool caseSensitive, bool escaped) const;
    /// As many characters as there are, up to the count: from `start` on, from the front, from the end.
    YString Mid(unsigned int start, unsigned int count) const;
    YString Left(unsigned int count) const;
    YString Right(unsigned int count) const;
    /// First byte of the character at `index`; raises InvalidArgument behind the last character.
    const char& At(unsigned int index) const;
    /// True for the empty suffix.
    bool EndsWith(const YString& suffix, bool caseSensitive) const;

    /// Replaces up to `maxCount` matches (0: all) from `start` on and returns how many; inserted text is not
    /// searched again. Raises InvalidArgument if `start` lies behind the last character.
    unsigned int Replace(const char* from, const char* to, unsigned int start, unsigned int maxCount,
                         bool caseSensitive);
    /// Keeps so many characters from the front; or drops as many.
    void Truncate(unsigned int count);
    void TrimLeft(unsigned int count);
    /// Blanks, line feeds and carriage returns; a tab is text.
    void TrimWhiteSpacesLeft();
    void TrimWhiteSpacesRight();
    /// Replaces the content with at most `maxChars` characters of `source`; returns how many were taken.
    unsigned int Copy(const char* source, unsigned int maxChars);
    /// Appends the bytes.
    YString& operator+=(const YString& other);

    /// Compare bytes; a null pointer is the empty text.
    friend bool operator==(const YString& a, const YString& b) noexcept { return a.m_bytes == b.m_bytes; }
    friend bool operator==(const YString& a, const char* b) noexcept { return a.m_bytes == (b ? b : ""); }
    /// Bytes as unsigned numbers over the shorter length, then the shorter first.
    friend auto operator<=>(const YString& a, const YString& b) noexcept { return a.m_bytes <=> b.m_bytes; }
    /// Prints all bytes, as a std::string is printed.
    friend KRT_API std::ostream& operator<<(std::ostream& out, const YString& text);

private:
    static constexpr unsigned int Unknown = 0xFFFFFFFF;

    unsigned int CachedCount() const noexcept { return m_count.load(std::memory_order_relaxed); }
    // Whether each character is one byte, as far as that is known.
    bool IsSingleByte() const noexcept { return CachedCount() == m_bytes.size(); }
    // Byte offset of a character, or npos past the end.
    std::size_t Locate(unsigned int index) const;
    // Byte offset so many characters behind an offset, or npos past the end.
    std::size_t Walk(std::size_t offset, unsigned int characters) const;
    // Byte offset of the first match at or behind an offset, of which `index` is the character index and is
    // moved along; npos if there is none.
    std::size_t Search(std::string_view needle, std::size_t offset, unsigned int& index,
                       bool caseSensitive) const;
    // The bytes between two offsets, up to the first NUL.
    std::string_view Text(std::size_t begin, std::size_t end) const;
    // Every mutator begins with DropWide and ends with Normalize.
    void DropWide() noexcept { m_wide.reset(); }
    void Normalize() noexcept
    {
        while (!m_bytes.empty() && m_bytes.back() == '\0')
            m_bytes.pop_back();
        m_count.store(Unknown, std::memory_order_relaxed);
    }
    void Clear() noexcept
    {
        DropWide();
        m_bytes.clear();
        m_count.store(Unknown, std::memory_order_relaxed);
    }

    std::string m_bytes;
    mutable std::atomic<unsigned int> m_count{Unknown};
    mutable std::unique_ptr<Memory::YHeap<wchar_t>> m_wide; // none in nearly every string
};

/// One behind the other.
KRT_API YString operator+(char first, const YString& rest);
KRT_API YString operator+(const YString& first, const YString& rest);

} // namespace Krt
