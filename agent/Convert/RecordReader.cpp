#include "agent/Convert/RecordReader.h"

#include "agent/Run/Text.h"

#include <algorithm>

namespace Agent {

using Krt::YString;
using Krt::JSON::YValue;

namespace {

constexpr std::string_view Blanks = " \t\r\n";

// No text inside a record holds a brace and this: its quotes are escaped there.
constexpr std::string_view FirstKey = "\"metadata_type\"";

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
    if (record.json) {
        m_text.Consume(size);
    } else if (m_text[0] != '{' || !ReadDocument(record)) {
        m_text.Consume(1);
        SkipInLine();
    }
}

// A line that is no record may still be the first one of a record, or have more in it than one. Returns
// false, with nothing taken, for a line that is damaged in itself.
bool RecordReader::ReadDocument(InputRecord& record)
{
    const std::size_t column = m_text.GetColumn();
    const Extent extent = Measure();
    if (extent.end != JsonNesting::Closed && !extent.isTooLong && extent.line == record.line)
        return false;
    Take(extent, column, record);
    if (record.json && !EndsRecord()) {
        record.json.reset();
        record.reason = InLine("There is more behind the end of this record", extent.line);
        SkipInLine();
    }
    return true;
}

// Whether what follows a record is the end of its line or another record, maybe behind a comma or bracket of
// an array whose begin is lost; goes there.
bool RecordReader::EndsRecord()
{
    const std::string_view rest = m_text.View(m_text.LineSize(RecordLimit));
    std::size_t at = rest.find_first_not_of(Blanks);
    if (at != std::string_view::npos && (rest[at] == ',' || rest[at] == ']'))
        at = rest.find_first_not_of(Blanks, at + 1);
    if (at != std::string_view::npos && rest[at] != '{')
        return false;
    m_text.Consume(std::min(at, rest.size()));
    return true;
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
    while (m_text.Has(0) && std::string_view(",]\n").find(m_text[0]) == std::string_view::npos &&
           !BeginsRecord(0));
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
        const bool isOutside =
            beginsLine && (lines.GetIndent() <= column || extent.end == JsonNesting::Broken);
        if (byte == '{' && (at > 0 || extent.isTooLong) && !extent.next && (isOutside || BeginsRecord(at)))
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
    m_text.Consume(!record.json && extent.next ? *extent.next : extent.size);
    if (isClosed && (record.json || !extent.next))
        return;
    unsigned long long last = extent.next ? m_text.GetLine() - 1 : record.line; // of what is left out
    if (isCutOff)
        m_place = Place::Line;
    else if (!extent.next)
        last = SkipToRecord(column);
    if (last > record.line || (last == record.line && !isCutOff && !extent.next))
        record.reason = record.reason + YString("; left out up to line " + std::to_string(last));
    if (m_place != Place::Line)
        m_place = m_text.Has(0) && m_text[0] == '{' ? Place::AfterComma : Place::AfterRecord;
}

bool RecordReader::BeginsRecord(std::size_t at)
{
    constexpr std::size_t BlankLimit = 256;
    if (m_text[at] != '{')
        return false;
    const std::size_t last = at + BlankLimit;
    do
        ++at;
    while (at < last && m_text.Has(at) && IsBlank(m_text[at]));
    const std::size_t end = at + FirstKey.size();
    return m_text.Has(end - 1) && m_text.View(end).ends_with(FirstKey);
}

// To a record that begins in the rest of the line, or else to the line's end; whether there is one.
bool RecordReader::SkipInLine()
{
    constexpr std::size_t StepSize = 64 * 1024;
    std::size_t at = 0;
    for (; m_text.Has(at) && m_text[at] != '\n' && !BeginsRecord(at); ++at) {
        if (at == StepSize) {
            m_text.Consume(at);
            at = 0;
        }
    }
    m_text.Consume(at);
    return m_text.Has(0) && m_text[0] == '{';
}

// To what has a record's first key, or to a line that begins like a record of that column or like the end of
// the array around it. Returns the last line that is left out to its end; 0 without one.
unsigned long long RecordReader::SkipToRecord(std::size_t column)
{
    const std::string_view wanted = m_place == Place::Line ? "{" : "{]";
    unsigned long long last = 0;
    while (!SkipInLine()) {
        last = m_text.GetLine();
        if (!m_text.ConsumeLine())
            break;
        std::size_t indent = 0;
        while (indent <= column && m_text.Has(indent) && (m_text[indent] == ' ' || m_text[indent] == '\t'))
            ++indent;
        if (indent <= column && m_text.Has(indent) && wanted.find(m_text[indent]) != std::string_view::npos) {
            m_text.Consume(indent);
            break;
        }
    }
    return last;
}

} // namespace Agent
