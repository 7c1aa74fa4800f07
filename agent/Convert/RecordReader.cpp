#include "agent/Convert/RecordReader.h"

#include "agent/Cli/Text.h"

namespace Agent {

using Krt::YString;
using Krt::JSON::YValue;

namespace {

constexpr std::string_view Blanks = " \t\r\n";

constexpr const char* NoObject = "This is no JSON object";

bool IsBlank(char byte)
{
    return Blanks.find(byte) != std::string_view::npos;
}

bool Parse(std::string_view text, InputRecord& record)
{
    try {
        const auto value = YValue::Parse(text);
        record.json = value->IsObject() ? value : nullptr;
        record.reason = record.json ? "" : NoObject;
    } catch (const Krt::Exception::YError& error) {
        record.reason = ReasonOf(error);
    }
    return record.json != nullptr;
}

YString TooLong()
{
    return YString("This record is longer than " + std::to_string(RecordReader::RecordLimit) + " bytes");
}

YString InLine(const char* reason, unsigned long long line)
{
    return YString(reason + (", in line " + std::to_string(line)));
}

// Follows a text line by line: tells the bytes that are the first of their line behind its indentation.
class LineBegins
{
public:
    explicit LineBegins(unsigned long long line) : m_line(line) {}
    bool Feed(char byte)
    {
        const bool isBegin = m_isIndent && !IsBlank(byte);
        if (byte == '\n') {
            ++m_line;
            m_isIndent = true;
            m_indent = 0;
        } else if (m_isIndent) {
            m_isIndent = !isBegin;
            m_indent += !isBegin;
        }
        return isBegin;
    }
    unsigned long long GetLine() const { return m_line; }
    std::size_t GetIndent() const { return m_indent; }

private:
    unsigned long long m_line;
    std::size_t m_indent = 0;
    bool m_isIndent = false;
};

} // namespace

RecordReader::RecordReader(const std::string& path) : m_text(path) {}

bool RecordReader::Next(InputRecord& record)
{
    for (;;) {
        SkipBlanks();
        record = {m_text.GetLine(), nullptr, YString()};
        if (!m_text.Has(0))
            return EndArray(record);
        if (m_place != Place::Line) {
            if (ReadElement(record))
                return true;
        } else if (BeginsArray()) {
            m_text.Consume(1);
            m_place = Place::Array;
        } else {
            ReadLine(record);
            return true;
        }
    }
}

void RecordReader::SkipBlanks()
{
    while (m_text.Has(0) && IsBlank(m_text[0]))
        m_text.Consume(1);
}

// A damaged line may begin with the bracket, too.
bool RecordReader::BeginsArray()
{
    if (m_text[0] != '[')
        return false;
    std::size_t behind = 1;
    while (behind < RecordLimit && m_text.Has(behind) && m_text[behind] != '\n' && IsBlank(m_text[behind]))
        ++behind;
    return !m_text.Has(behind) || std::string_view("{]\n").find(m_text[behind]) != std::string_view::npos;
}

bool RecordReader::EndArray(InputRecord& record)
{
    if (m_place == Place::Line)
        return false;
    m_place = Place::Line;
    record.reason = "The input ends within an array";
    return true;
}

void RecordReader::ReadLine(InputRecord& record)
{
    const std::size_t size = m_text.LineSize(RecordLimit);
    if (size > RecordLimit)
        record.reason = TooLong();
    else
        Parse(m_text.View(size), record);
    if (record.json)
        m_text.Consume(size);
    else if (m_text[0] == '{')
        ReadLines(record);
    else
        m_text.ConsumeLine();
}

// A line that is no record may still be the first one of a record.
void RecordReader::ReadLines(InputRecord& record)
{
    const std::size_t column = m_text.GetColumn();
    const Extent extent = Measure();
    if (extent.line == record.line) {
        m_text.ConsumeLine();
        return;
    }
    Take(extent, column, record);
    if (extent.end != JsonNesting::Closed)
        return;
    const std::string_view rest = m_text.View(m_text.LineSize(RecordLimit));
    if (rest.find_first_not_of(Blanks) != std::string_view::npos) {
        record.json.reset();
        record.reason = InLine("There is more behind the end of this record", extent.line);
        m_text.ConsumeLine();
    }
}

// Returns whether there is something to tell.
bool RecordReader::ReadElement(InputRecord& record)
{
    const char byte = m_text[0];
    if (byte == ',' || byte == ']')
        return ReadSeparator(record);
    if (m_place == Place::AfterRecord) {
        m_place = Place::AfterComma;
        record.reason = "There is no comma in front of this record";
        return true;
    }
    m_place = Place::AfterRecord;
    if (byte == '{' || byte == '[') {
        const std::size_t column = m_text.GetColumn();
        const Extent extent = Measure();
        Take(extent, column, record);
        return true;
    }
    record.reason = NoObject;
    do
        m_text.Consume(1);
    while (m_text.Has(0) && std::string_view(",]\n").find(m_text[0]) == std::string_view::npos);
    return true;
}

bool RecordReader::ReadSeparator(InputRecord& record)
{
    const bool isComma = m_text[0] == ',';
    const bool fits = isComma ? m_place == Place::AfterRecord : m_place != Place::AfterComma;
    m_text.Consume(1);
    m_place = isComma ? Place::AfterComma : Place::Line;
    if (!fits)
        record.reason =
            isComma ? "A comma without a record in front of it" : "A comma without a record behind it";
    return !fits;
}

RecordReader::Extent RecordReader::Measure()
{
    const std::size_t column = m_text.GetColumn();
    LineBegins lines(m_text.GetLine());
    JsonNesting nesting;
    Extent extent;
    for (std::size_t& at = extent.size; extent.end == JsonNesting::Open && m_text.Has(at);) {
        if (at == RecordLimit) {
            extent.isTooLong = true;
            if (extent.next)
                break;
            m_text.Consume(at);
            at = 0;
        }
        const char byte = m_text[at];
        extent.line = lines.GetLine();
        const bool beginsLine = lines.Feed(byte);
        extent.end = nesting.Feed(byte);
        // Nested objects are indented more than the record that they are in.
        if (beginsLine && byte == '{' && !extent.next &&
            (lines.GetIndent() <= column || extent.end == JsonNesting::Broken))
            extent.next = at;
        if (extent.isTooLong && extent.next)
            break;
        at += extent.end != JsonNesting::Broken;
    }
    return extent;
}

// Takes the value out of the text, or what there is of it, and goes on where the next record may begin.
void RecordReader::Take(const Extent& extent, std::size_t column, InputRecord& record)
{
    const bool isClosed = extent.end == JsonNesting::Closed;
    const bool isCutOff = extent.end == JsonNesting::Open && !extent.next;
    if (extent.isTooLong)
        record.reason = TooLong();
    else if (isClosed)
        Parse(m_text.View(extent.size), record);
    else if (extent.next)
        record.reason = "This record is damaged or has no end";
    else
        record.reason =
            InLine(isCutOff ? "The input ends within this record" : "This record is damaged", extent.line);
    m_text.Consume(!isClosed && extent.next ? *extent.next : extent.size);
    if (isClosed)
        return;
    if (isCutOff)
        m_place = Place::Line;
    else if (!extent.next)
        SkipToRecord(column);
    const unsigned long long last = m_text.GetLine() - 1; // of what is skipped
    if (!isCutOff && last > record.line)
        record.reason = record.reason + YString("; left out up to line " + std::to_string(last));
    if (m_place != Place::Line)
        m_place = m_text.Has(0) && m_text[0] == '{' ? Place::AfterComma : Place::AfterRecord;
}

// To a line that begins like a record of that column, or like the end of the array around it.
void RecordReader::SkipToRecord(std::size_t column)
{
    const std::string_view wanted = m_place == Place::Line ? "{" : "{]";
    while (m_text.ConsumeLine()) {
        std::size_t indent = 0;
        while (indent <= column && m_text.Has(indent) && (m_text[indent] == ' ' || m_text[indent] == '\t'))
            ++indent;
        if (indent <= column && m_text.Has(indent) && wanted.find(m_text[indent]) != std::string_view::npos)
            return m_text.Consume(indent);
    }
}

} // namespace Agent
