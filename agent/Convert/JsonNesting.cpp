#include "agent/Convert/JsonNesting.h"

namespace Agent {

namespace {

constexpr std::size_t DepthLimit = 64; // that of the parser

} // namespace

JsonNesting::State JsonNesting::Feed(char byte)
{
    if (m_isText)
        return FeedText(byte);
    switch (byte) {
    case ' ':
    case '\t':
    case '\r':
    case '\n':
        return Open;
    case '{':
    case '[':
        return Begin(byte);
    case '}':
    case ']':
        return End(byte);
    case '"':
        // A key or a value.
        if (!TakesValue() && m_last != '{' && m_last != ',')
            return Broken;
        m_isText = true;
        break;
    default:
        break;
    }
    m_last = byte;
    return Open;
}

JsonNesting::State JsonNesting::FeedText(char byte)
{
    if (static_cast<unsigned char>(byte) < 0x20)
        return Broken;
    if (m_isEscaped)
        m_isEscaped = false;
    else if (byte == '\\')
        m_isEscaped = true;
    else if (byte == '"')
        m_isText = false;
    return Open;
}

JsonNesting::State JsonNesting::Begin(char bracket)
{
    if (!TakesValue() || m_open.size() == DepthLimit)
        return Broken;
    m_open += bracket;
    m_last = bracket;
    return Open;
}

JsonNesting::State JsonNesting::End(char bracket)
{
    if (m_open.back() != (bracket == '}' ? '{' : '['))
        return Broken;
    m_open.pop_back();
    m_last = bracket;
    return m_open.empty() ? Closed : Open;
}

bool JsonNesting::TakesValue() const
{
    return m_open.empty() || m_last == ':' || m_last == '[' || (m_last == ',' && m_open.back() == '[');
}

} // namespace Agent
