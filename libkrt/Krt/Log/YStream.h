// YStream: builds a message and can publish it. Flushing fires the stream's signal with the text. A plain
// stream keeps its text after a flush. One thread uses a stream at a time.
#pragma once

#include "Krt/Export.h"
#include "Krt/Signal/YSignal.h"
#include "Krt/String/YString.h"

#include <sstream>
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

/// The next number alone is written in hexadecimal digits, without a prefix.
enum class Hex : unsigned int
{
    On = 1
};

/// What changes a stream rather than adding to its text.
enum class Modifiers : unsigned int
{
    EndLine = 1,  ///< appends a line end and flushes
    ByteCount = 4 ///< stands in front of a number that counts bytes
};

class KRT_API YStream
{
public:
    /// Begins with the text.
    explicit YStream(const YString& text);
    YStream(const YStream&) = delete;
    YStream& operator=(const YStream&) = delete;
    virtual ~YStream();

    /// Appends the value as text: numbers in decimal unless Hex comes before, an error with its description
    /// in parentheses, a descriptor with kind and pattern, a list's strings directly one behind the other.
    YStream& operator<<(const char* text);
    YStream& operator<<(const YString& text);
    YStream& operator<<(char character);
    YStream& operator<<(unsigned char value);
    YStream& operator<<(int value);
    YStream& operator<<(unsigned int value);
    YStream& operator<<(unsigned long value);
    YStream& operator<<(unsigned long long value);
    YStream& operator<<(const File::YPath& path);
    YStream& operator<<(const Match::Descriptor& descriptor);
    YStream& operator<<(const Exception::YError& error);
    YStream& operator<<(const std::vector<YString>& strings);
    YStream& operator<<(const YStream& other);
    YStream& operator<<(Hex);
    YStream& operator<<(Modifiers modifier);

    /// The text so far, which stays.
    operator YString() const;

    /// Fired by each flush with the text.
    Signal::YSignal<void(YString)>& GetSignal() { return m_signal; }

    /// Takes the text and fires the signal with it, once.
    virtual void FlushInternal();

protected:
    Signal::YSignal<void(YString)> m_signal; ///< what GetSignal gives
    std::ostringstream m_text;               ///< the text so far

private:
    template <class T>
    YStream& AppendNumber(T value);
};

} // namespace Krt
