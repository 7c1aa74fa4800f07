// TextBuffer: appends to a string, of which room is made in advance: most of what JSON text is made of is a
// single character or a short name.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace Krt::JSON {

class TextBuffer
{
public:
    /// The string is complete when the buffer is destroyed, and belongs to it until then.
    explicit TextBuffer(std::string& out) : m_out(out), m_end(out.data() + out.size()), m_limit(m_end) {}
    ~TextBuffer() { m_out.resize(Size()); }
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;

    /// Where so many bytes may be written, to be followed by MoveTo.
    char* Room(std::size_t size)
    {
        if (static_cast<std::size_t>(m_limit - m_end) < size) [[unlikely]]
            Grow(size);
        return m_end;
    }
    /// Says up to where they were written.
    void MoveTo(char* end) { m_end = end; }

    /// Adds the bytes at the end.
    void Append(char byte)
    {
        *Room(1) = byte;
        ++m_end;
    }
    void Append(std::string_view text) { MoveTo(std::copy(text.begin(), text.end(), Room(text.size()))); }

private:
    static constexpr std::size_t FirstRoom = 1000; // enough for most records

    std::size_t Size() const { return static_cast<std::size_t>(m_end - m_out.data()); }
    [[gnu::noinline]] void Grow(std::size_t size)
    {
        const std::size_t used = Size();
        m_out.resize(used + std::max({size, used, FirstRoom}));
        m_end = m_out.data() + used;
        m_limit = m_out.data() + m_out.size();
    }

    std::string& m_out;
    char* m_end;
    const char* m_limit;
};

} // namespace Krt::JSON
