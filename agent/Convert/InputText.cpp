#include "agent/Convert/InputText.h"

#include <algorithm>

namespace Agent {

InputText::InputText(const std::string& path) : m_file(path)
{
    constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";
    if (Has(ByteOrderMark.size() - 1) && View(ByteOrderMark.size()) == ByteOrderMark)
        Consume(ByteOrderMark.size());
}

bool InputText::Grow(std::size_t position)
{
    constexpr std::size_t BlockSize = 256 * 1024;
    m_text.erase(0, m_front);
    m_front = 0;
    while (!m_ended && m_text.size() <= position) {
        const std::size_t before = m_text.size();
        m_text.resize(before + BlockSize);
        const std::size_t count = m_file.Read(m_text.data() + before, BlockSize);
        m_text.resize(before + count);
        m_ended = count == 0;
    }
    return position < m_text.size();
}

std::size_t InputText::LineSize(std::size_t limit)
{
    while (m_searched <= limit && Has(m_searched)) {
        const std::size_t end = m_text.find('\n', m_front + m_searched);
        m_searched = std::min(end, m_text.size()) - m_front;
        if (end != std::string::npos)
            break;
    }
    return std::min(m_searched, limit + 1);
}

void InputText::Consume(std::size_t count)
{
    const std::string_view text = View(count);
    m_line += static_cast<unsigned long long>(std::count(text.begin(), text.end(), '\n'));
    m_offset += count;
    m_front += count;
    m_searched -= std::min(count, m_searched);
}

void InputText::ConsumeLine()
{
    while (Has(0)) {
        const std::size_t end = m_text.find('\n', m_front);
        if (end != std::string::npos)
            return Consume(end + 1 - m_front);
        Consume(m_text.size() - m_front);
    }
}

void InputText::SkipBlanks()
{
    while (Has(0) && IsBlank(m_text[m_front]))
        Consume(1);
}

} // namespace Agent
