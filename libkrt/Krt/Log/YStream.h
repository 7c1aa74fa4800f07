#pragma once

#include "Krt/Export.h"
#include "Krt/Signal/YSignal.h"
#include "Krt/String/YString.h"

#include <sstream>
#include <string_view>
#include <vector>

namespace Krt::File {
class YPath;
}
namespace Krt::Match {
class Descriptor;
}
namespace Krt::Exception {
class YError;
}

namespace Krt {

/// A modifier: only the next number is written in hexadecimal digits, without a prefix.
enum class Hex : unsigned int
{
    On = 1
};

/// Values that change the stream instead of adding text.
enum class Modifiers : unsigned int
{
    EndLine = 1, ///< appends a line end and flushes
    /// Marks the next number as a count of bytes, which is written as any other number.
    ByteCount = 4
};

/// Builds a message and can publish it: a flush fires the stream's signal with the text. A plain stream
/// keeps its text after a flush. One thread at a time.
class KRT_API YStream
{
public:
    /// Starts with `text`.
    explicit YStream(const YString& text);
    YStream(const YStream&) = delete;
    YStream& operator=(const YStream&) = delete;
    virtual ~YStream();

    /// Appends the text up to its NUL.
    YStream& operator<<(const char* text);
    /// Appends all bytes of the text.
    YStream& operator<<(const YString& text);
    /// Appends the character.
    YStream& operator<<(char character);
    /// Appends the number in decimal, also after Hex::On, which then has no effect on a later number.
    YStream& operator<<(unsigned char value);
    /// Appends the number in decimal, or in hexadecimal after Hex::On.
    YStream& operator<<(int value);
    /// Appends the number in decimal, or in hexadecimal after Hex::On.
    YStream& operator<<(unsigned int value);
    /// Appends the number in decimal, or in hexadecimal after Hex::On.
    YStream& operator<<(unsigned long value);
    /// Appends the number in decimal, or in hexadecimal after Hex::On.
    YStream& operator<<(unsigned long long value);
    /// Appends the path's text.
    YStream& operator<<(const File::YPath& path);
    /// Appends the kind, the pattern if the kind has one, and whether case is ignored.
    YStream& operator<<(const Match::Descriptor& descriptor);
    /// Appends the message with the description in parentheses.
    YStream& operator<<(const Exception::YError& error);
    /// Appends the strings without separators.
    YStream& operator<<(const std::vector<YString>& strings);
    /// Appends the text of `other`.
    YStream& operator<<(const YStream& other);
    /// Writes the next number in hexadecimal.
    YStream& operator<<(Hex);
    /// Applies the modifier.
    YStream& operator<<(Modifiers modifier);

    /// Returns the text so far, which is kept.
    operator YString() const;

    /// Fired by each flush with the text.
    Signal::YSignal<void(YString)>& GetSignal() { return m_signal; }

    /// Fires the signal once with the text.
    virtual void FlushInternal();

protected:
    Signal::YSignal<void(YString)> m_signal; ///< returned by GetSignal
    std::ostringstream m_text;               ///< the text so far

private:
    KRT_HIDDEN void Append(std::string_view text);
    template <class T>
    YStream& AppendNumber(T value);
};

} // namespace Krt
