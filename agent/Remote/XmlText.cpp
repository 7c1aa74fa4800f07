#include "agent/Remote/XmlText.h"

#include "agent/Repository/Failure.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <string>
#include <utf8.h>
#include <vector>

namespace Agent::Remote {

namespace {

constexpr std::size_t DepthLimit = 32;
constexpr std::string_view White = " \t\r\n";

class XmlReader
{
public:
    XmlReader(std::string_view text, const ElementVisitor& visit) : m_text(text), m_visit(visit) {}

    void Read();

private:
    struct Element
    {
        std::string_view name; // as it was written
        std::string text;
    };

    [[noreturn]] void RaiseMalformed() const
    {
        REPOSITORY_RAISE(Repo::Failure::Backend, "the server sent an answer that is not XML (at offset "
                                                     << static_cast<unsigned long>(m_offset) << ")");
    }
    bool IsAt(std::string_view mark) const { return m_text.substr(m_offset).starts_with(mark); }
    std::string_view TakeTo(std::string_view mark);
    std::string_view TakeTag();
    void ReadMarkup();
    void Begin(std::string_view tag);
    void End(std::string_view name);
    void AddText(std::string_view raw);
    void AddReference(std::string_view name);
    static std::string_view Local(std::string_view name)
    {
        const std::size_t colon = name.find(':');
        return colon == name.npos ? name : name.substr(colon + 1);
    }

    std::string_view m_text;
    const ElementVisitor& m_visit;
    std::size_t m_offset = 0;
    std::vector<Element> m_open;
    bool m_isDone = false; // the outermost element has ended
};

// The text before the mark, which is consumed, too.
std::string_view XmlReader::TakeTo(std::string_view mark)
{
    const std::size_t end = m_text.find(mark, m_offset);
    if (end == m_text.npos)
        RaiseMalformed();
    const std::string_view taken = m_text.substr(m_offset, end - m_offset);
    m_offset = end + mark.size();
    return taken;
}

// A tag without its brackets. Values of attributes may contain ">".
std::string_view XmlReader::TakeTag()
{
    char quote = '\0';
    for (std::size_t at = m_offset + 1; at < m_text.size(); ++at) {
        const char byte = m_text[at];
        if (quote != '\0') {
            quote = byte == quote ? '\0' : quote;
        } else if (byte == '"' || byte == '\'') {
            quote = byte;
        } else if (byte == '>') {
            const std::string_view tag = m_text.substr(m_offset + 1, at - m_offset - 1);
            m_offset = at + 1;
            return tag;
        }
    }
    RaiseMalformed();
}

void XmlReader::Begin(std::string_view tag)
{
    const bool isEmpty = tag.ends_with('/');
    const std::string_view name = tag.substr(0, tag.find_first_of(" \t\r\n/"));
    if (name.empty() || m_open.size() == DepthLimit || m_isDone)
        RaiseMalformed();
    m_open.push_back({name, ""});
    if (isEmpty)
        End(name);
}

void XmlReader::End(std::string_view name)
{
    if (m_open.empty() || m_open.back().name != name)
        RaiseMalformed();
    const Element ended = std::move(m_open.back());
    m_open.pop_back();
    m_isDone = m_open.empty();
    m_visit(m_open.empty() ? std::string_view() : Local(m_open.back().name), Local(ended.name), ended.text);
}

void XmlReader::AddReference(std::string_view name)
{
    std::string& text = m_open.back().text;
    constexpr std::pair<std::string_view, char> Known[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& [known, byte] : Known) {
        if (name == known) {
            text += byte;
            return;
        }
    }
    const bool isHex = name.starts_with("#x");
    const std::string_view digits = name.starts_with('#') ? name.substr(isHex ? 2 : 1) : "";
    std::uint32_t code = 0;
    const auto [stop, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), code, isHex ? 16 : 10);
    if (digits.empty() || error != std::errc() || stop != digits.data() + digits.size())
        RaiseMalformed();
    try {
        utf8::append(code, std::back_inserter(text));
    } catch (const utf8::exception&) {
        RaiseMalformed();
    }
}

void XmlReader::AddText(std::string_view raw)
{
    if (m_open.empty()) {
        if (raw.find_first_not_of(White) != raw.npos)
            RaiseMalformed();
        return;
    }
    while (!raw.empty()) {
        const std::size_t reference = raw.find('&');
        m_open.back().text.append(raw.substr(0, reference));
        if (reference == raw.npos)
            return;
        const std::size_t end = raw.find(';', reference);
        if (end == raw.npos)
            RaiseMalformed();
        AddReference(raw.substr(reference + 1, end - reference - 1));
        raw.remove_prefix(end + 1);
    }
}

void XmlReader::ReadMarkup()
{
    if (IsAt("<?")) {
        TakeTo("?>");
    } else if (IsAt("<!--")) {
        m_offset += 4;
        TakeTo("-->");
    } else if (IsAt("<![CDATA[") && !m_open.empty()) {
        m_offset += 9;
        m_open.back().text.append(TakeTo("]]>"));
    } else if (IsAt("<!")) {
        RaiseMalformed();
    } else if (IsAt("</")) {
        std::string_view tag = TakeTag().substr(1);
        End(tag.substr(0, tag.find_first_of(White)));
    } else {
        Begin(TakeTag());
    }
}

void XmlReader::Read()
{
    if (IsAt("\xEF\xBB\xBF"))
        m_offset = 3;
    while (m_offset < m_text.size()) {
        if (m_text[m_offset] == '<') {
            ReadMarkup();
            continue;
        }
        const std::size_t end = std::min(m_text.find('<', m_offset), m_text.size());
        const std::string_view raw = m_text.substr(m_offset, end - m_offset);
        AddText(raw);
        m_offset = end;
    }
    if (!m_isDone)
        RaiseMalformed();
}

} // namespace

void ReadXml(std::string_view text, const ElementVisitor& visit)
{
    XmlReader(text, visit).Read();
}

} // namespace Agent::Remote
