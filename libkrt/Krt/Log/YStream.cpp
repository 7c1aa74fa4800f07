#include "Krt/Log/YStream.h"

#include "Krt/Exception/YError.h"
#include "Krt/File/YPath.h"
#include "Krt/Match/Descriptor.h"

#include <locale>

namespace Krt {

using Exception::YError;

YStream::YStream(const YString& text)
{
    // Messages don't depend on the locale that the program chose for its users.
    m_text.imbue(std::locale::classic());
    // Without this, a stream would not report lack of memory, and would lose this text and all that follows.
    m_text.exceptions(std::ios::badbit);
    *this << text;
}

YStream::~YStream() = default;

// A message has no width and its stream is tied to no other, so text needs no formatted output. Raises
// std::bad_alloc.
void YStream::Append(std::string_view text)
{
    const auto size = static_cast<std::streamsize>(text.size());
    if (m_text.rdbuf()->sputn(text.data(), size) != size)
        m_text.setstate(std::ios::badbit); // raises
}

// The base of the next number is kept in the stream's format flags.
template <class T>
YStream& YStream::AppendNumber(T value)
{
    m_text << value << std::dec;
    return *this;
}

YStream& YStream::operator<<(const char* text)
{
    if (text != nullptr)
        Append(text);
    return *this;
}

YStream& YStream::operator<<(const YString& text)
{
    Append(text.Bytes());
    return *this;
}

YStream& YStream::operator<<(char character)
{
    Append({&character, 1});
    return *this;
}

YStream& YStream::operator<<(unsigned char value)
{
    m_text << std::dec;
    return AppendNumber(static_cast<unsigned int>(value));
}

YStream& YStream::operator<<(int value)
{
    return AppendNumber(value);
}

YStream& YStream::operator<<(unsigned int value)
{
    return AppendNumber(value);
}

YStream& YStream::operator<<(unsigned long value)
{
    return AppendNumber(value);
}

YStream& YStream::operator<<(unsigned long long value)
{
    return AppendNumber(value);
}

YStream& YStream::operator<<(const File::YPath& path)
{
    return *this << path.AsUnixPath(false);
}

// The kind, the pattern in quotes where the kind has one, and the case rule where it isn't the usual one.
YStream& YStream::operator<<(const Match::Descriptor& descriptor)
{
    switch (descriptor.GetMatchType()) {
    case Match::MatchType::Glob:
        *this << "glob";
        break;
    case Match::MatchType::Exact:
        *this << "exact";
        break;
    case Match::MatchType::Any:
        return *this << "any";
    case Match::MatchType::None:
        return *this << "none";
    }
    *this << " \"" << descriptor.GetPattern() << "\"";
    return descriptor.IsCaseSensitive() ? *this : *this << " in any case";
}

YStream& YStream::operator<<(const YError& error)
{
    if (!error.GetMessage().IsEmpty())
        *this << error.GetMessage() << " ";
    return *this << "(" << error.Describe() << ")";
}

YStream& YStream::operator<<(const std::vector<YString>& strings)
{
    for (const YString& string : strings)
        *this << string;
    return *this;
}

YStream& YStream::operator<<(const YStream& other)
{
    return *this << YString(other);
}

YStream& YStream::operator<<(Hex)
{
    m_text << std::hex;
    return *this;
}

YStream& YStream::operator<<(Modifiers modifier)
{
    if (modifier == Modifiers::EndLine) {
        Append("\n");
        FlushInternal();
    }
    return *this;
}

YStream::operator YString() const
{
    return YString(std::string_view(m_text.str()));
}

void YStream::FlushInternal()
{
    m_signal(*this);
}

} // namespace Krt
