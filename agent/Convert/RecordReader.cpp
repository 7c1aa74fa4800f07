#include "agent/Convert/RecordReader.h"

#include "agent/Run/Text.h"

#include <algorithm>

namespace Agent {

using Krt::YString;
using Krt::JSON::YValue;

namespace {

constexpr const char* NotAnObject = "This is not a JSON object";

// Parses the text into the record; returns false, with the reason in the record, if it is not an object.
bool Parse(std::string_view text, InputRecord& record)
{
    try {
        const auto value = YValue::Parse(text);
        record.json = value->IsObject() ? value : nullptr;
        record.reason = record.json ? "" : NotAnObject;
    } catch (const Krt::Exception::YError& error) {
        record.reason = ReasonOf(error);
    }
    return record.json != nullptr;
}

YString TooLong()
{
    return YString("This record is longer than " + std::to_string(RecordReader::RecordLimit) + " bytes");
}

enum class DocumentEnd
{
    Found,
    InputEnds,
    TooLong
};

// Measures the object at the beginning of the text, up to its last bracket. The text between the brackets is
// left to the parser.
DocumentEnd MeasureDocument(InputText& text, std::size_t& size)
{
    std::size_t depth = 0;
    bool isInString = false;
    for (size = 0; size < RecordReader::RecordLimit; ++size) {
        if (!text.Has(size))
            return DocumentEnd::InputEnds;
        switch (text[size]) {
        case '"':
            isInString = !isInString;
            break;
        case '\\':
            size += isInString; // the escaped byte
            break;
        case '{':
        case '[':
            depth += !isInString;
            break;
        case '}':
        case ']':
            if (!isInString && --depth == 0) {
                ++size;
                return DocumentEnd::Found;
            }
            break;
        default:
            break;
        }
    }
    return DocumentEnd::TooLong;
}

} // namespace

RecordReader::RecordReader(const std::string& path) : m_text(path) {}

bool RecordReader::Next(InputRecord& record)
{
    m_text.SkipBlanks();
    if (m_form == Form::Undecided)
        m_form = Decide();
    record = {m_text.GetLine(), nullptr, YString()};
    switch (m_form) {
    case Form::Array:
        return ReadElement(record);
    case Form::Lines:
    case Form::Documents:
        if (!m_text.Has(0))
            return false;
        m_form == Form::Lines ? ReadLine(record) : ReadDocument(record);
        return true;
    default:
        return false;
    }
}

// An object that ends in its first line is a record per line, unless another object follows in that line.
// Otherwise the first line is the beginning of a document or a damaged line; after a damaged line, the next
// line begins a record.
RecordReader::Form RecordReader::Decide()
{
    if (!m_text.Has(0))
        return Form::Ended;
    if (m_text[0] == '[') {
        m_text.Consume(1);
        m_text.SkipBlanks();
        return Form::Array;
    }
    std::size_t end = 0;
    if (m_text[0] != '{' || m_text.LineSize(RecordLimit) > RecordLimit)
        return Form::Lines;
    const bool isWhole = MeasureDocument(m_text, end) == DocumentEnd::Found;
    const std::size_t line = m_text.LineSize(RecordLimit);
    const bool endsInLine = isWhole && end <= line;
    std::size_t next = endsInLine ? end : line;
    while (m_text.Has(next) && InputText::IsBlank(m_text[next]) && next < RecordLimit)
        ++next;
    if (!m_text.Has(next))
        return Form::Lines;
    if (endsInLine)
        return next < line && m_text[next] == '{' ? Form::Documents : Form::Lines;
    return m_text[next] == '{' ? Form::Lines : Form::Documents;
}

void RecordReader::ReadLine(InputRecord& record)
{
    const std::size_t size = m_text.LineSize(RecordLimit);
    if (size > RecordLimit)
        record.reason = TooLong();
    else
        Parse(m_text.View(size), record);
    m_text.ConsumeLine();
}

// Returns false at the end of the array.
bool RecordReader::ReadElement(InputRecord& record)
{
    const bool isFirst = std::exchange(m_isFirstElement, false);
    if (m_text.Has(0) && m_text[0] == ']') {
        m_text.Consume(1);
        m_text.SkipBlanks();
        record.line = m_text.GetLine();
        if (m_text.Has(0))
            End(record, "There is more after the end of the array");
        m_form = Form::Ended;
        return !record.reason.IsEmpty();
    }
    if (m_text.Has(0) && !isFirst) {
        if (m_text[0] != ',') {
            End(record, "There is no comma before this record");
            return true;
        }
        m_text.Consume(1);
        m_text.SkipBlanks();
        record.line = m_text.GetLine();
    }
    if (m_text.Has(0))
        ReadDocument(record);
    else
        End(record, "The input ends within an array");
    return true;
}

void RecordReader::ReadDocument(InputRecord& record)
{
    if (m_text[0] != '{')
        return End(record, NotAnObject);
    std::size_t size = 0;
    switch (MeasureDocument(m_text, size)) {
    case DocumentEnd::TooLong:
        return End(record, TooLong());
    case DocumentEnd::InputEnds:
        return End(record, "The input ends within this record");
    case DocumentEnd::Found:
        if (!Parse(m_text.View(size), record))
            return End(record, record.reason);
        m_text.Consume(size);
    }
}

void RecordReader::End(InputRecord& record, const YString& reason)
{
    record.reason = reason + YString("; reading ends here, at byte " + std::to_string(m_text.GetOffset()));
    m_form = Form::Ended;
}

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
