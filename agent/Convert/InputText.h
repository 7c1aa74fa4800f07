// InputText: a window on the text of an input, which grows at its end and is given up from its front. Offsets
// count from the front and stay right while the window grows.
#pragma once

#include "agent/Convert/InputFile.h"

#include <string>
#include <string_view>

namespace Agent {

class InputText
{
public:
    /// Raises as InputFile does; a byte order mark at the begin is left out.
    explicit InputText(const std::string& path);

    /// Whether there is a byte at the offset; reads until there is. Raises what reading raises.
    bool Has(std::size_t offset) { return offset < m_text.size() - m_front || Grow(offset); }
    /// Bytes that Has told of.
    char operator[](std::size_t offset) const { return m_text[m_front + offset]; }
    std::string_view View(std::size_t count) const { return {m_text.data() + m_front, count}; }
    /// Bytes before the end of the first line, or `limit` + 1 if there are more of them.
    std::size_t LineSize(std::size_t limit);
    /// Gives up the first `count` bytes, which Has told of.
    void Consume(std::size_t count);
    /// Gives up the rest of the line with its end, in bounded memory; false where no line follows.
    bool ConsumeLine();

    /// Of the front: the number of its line, from 1 on, and of the bytes before it in that line.
    unsigned long long GetLine() const { return m_line; }
    std::size_t GetColumn() const { return m_column; }

private:
    bool Grow(std::size_t offset);

    InputFile m_file;
    std::string m_text;
    std::size_t m_front = 0;    // of the window in m_text
    std::size_t m_searched = 0; // bytes from the front on that hold no end of a line
    unsigned long long m_line = 1;
    std::size_t m_column = 0;
    bool m_ended = false;
};

} // namespace Agent
