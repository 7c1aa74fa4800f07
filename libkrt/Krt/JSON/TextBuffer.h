#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace Krt::JSON {

/// Appends to a string in which space is reserved in advance, since JSON text consists mostly of single
/// characters and short names.
class TextBuffer
{
public:
    /// Appends to `out`, which the caller must not use until the buffer is destroyed.
    explicit TextBuffer(std::string& out) : m_out(out), m_end(out.data() + out.size()), m_limit(m_end) {}
    ~TextBuffer() { m_out.resize(Size()); }
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;

    /// Returns a pointer to at least `size` writable bytes at the end, to be followed by MoveTo.
    char* Room(std::size_t size)
    {
        if (static_cast<std::size_t>(m_limit - m_end) < size) [[unlikely]]
            Grow(size);
        return m_end;
    }
    /// Sets the end of the text to `end`, a pointer into the bytes of Room.
    void MoveTo(char* end) { m_end = end; }

    /// Appends a byte.
    void Append(char byte)
    {
        *Room(1) = byte;
        ++m_end;
    }
    /// Appends the bytes of `text`.
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
