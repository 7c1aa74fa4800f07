// InputText: a window on the text of an input. It grows at its end as more is read, and shrinks at its front
// as text is consumed. Positions count bytes from the front of the window and stay valid while it grows.
#pragma once

#include "agent/Convert/InputFile.h"

#include <string>
#include <string_view>

namespace Agent {

class InputText
{
public:
    /// Opens the input as InputFile does, and raises as it does. A byte order mark at the beginning is
    /// skipped.
    explicit InputText(const std::string& path);

    /// Returns true if `byte` is a blank of JSON (RFC 8259, section 2).
    static bool IsBlank(char byte) { return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n'; }

    /// Returns true if there is a byte at `position`; reads until there is. Raises what reading raises.
    bool Has(std::size_t position) { return position < m_text.size() - m_front || Grow(position); }
    /// Returns the byte at `position`, for which Has returned true.
    char operator[](std::size_t position) const { return m_text[m_front + position]; }
    /// Returns the first `count` bytes, for which Has returned true; valid until the window changes.
    std::string_view View(std::size_t count) const { return {m_text.data() + m_front, count}; }
    /// Returns the bytes before the end of the first line, or `limit` + 1 if there are more.
    std::size_t LineSize(std::size_t limit);
    /// Removes the first `count` bytes, for which Has returned true.
    void Consume(std::size_t count);
    /// Removes the rest of the line and its end, in bounded memory.
    void ConsumeLine();
    /// Removes blanks and line ends up to the next other byte.
    void SkipBlanks();

    /// Returns the number of the line that the front is in, from 1 on.
    unsigned long long GetLine() const { return m_line; }
    /// Returns the offset of the front in the input, in bytes.
    unsigned long long GetOffset() const { return m_offset; }

private:
    bool Grow(std::size_t position);

    InputFile m_file;
    std::string m_text;
    std::size_t m_front = 0;    // of the window in m_text
    std::size_t m_searched = 0; // bytes from the front on that contain no line end
    unsigned long long m_line = 1;
    unsigned long long m_offset = 0;
    bool m_ended = false;
};

} // namespace Agent
