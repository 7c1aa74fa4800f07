// RecordReader: takes the records out of a text, one after the other, in bounded memory. The text holds a
// record a line, or records written over many lines, or an array of records. Damage loses the record that it
// is in and no other: each comes with the line where it begins and its JSON object, or the reason why there
// is none. What has a record's first key is a record, wherever it stands.
#pragma once

#include "agent/Convert/InputText.h"
#include "agent/Convert/JsonNesting.h"

#include "Krt/JSON/YValue.h"

#include <optional>

namespace Agent {

struct InputRecord
{
    unsigned long long line = 0;               ///< where it begins, from 1 on
    boost::shared_ptr<Krt::JSON::YValue> json; ///< an object; null for what is none
    Krt::YString reason;                       ///< why it is none

    const Krt::JSON::YObject& Object() const { return json->AsObject(); }
};

class RecordReader
{
public:
    /// Longest record, in bytes. A longer one is told and skipped.
    static constexpr std::size_t RecordLimit = 16 << 20;

    /// Reads a file, or standard input for "-" and for an empty path. Raises if it can't be opened.
    explicit RecordReader(const std::string& path);

    /// The next record, or what stands in the place of one; false at the end. Raises if the input can't be
    /// read, or if the user interrupts the program.
    bool Next(InputRecord& record);

private:
    // Where the front of the text is.
    enum class Place
    {
        Line,  // at the begin of a record that is in no array
        Array, // behind the array's begin
        AfterComma,
        AfterRecord
    };
    // How far the value at the front reaches.
    struct Extent
    {
        JsonNesting::State end = JsonNesting::Open; // which at the end of the input it stays
        bool isTooLong = false;                     // then the text up to the limit is given up
        std::size_t size = 0;                       // up to where it ends or breaks
        unsigned long long line = 0;                // of that place
        std::optional<std::size_t> next;            // where another record seems to begin inside
    };

    void SkipBlanks();
    bool BeginsArray();
    bool EndArray(InputRecord& record);
    void ReadLine(InputRecord& record);
    bool ReadDocument(InputRecord& record);
    bool EndsRecord();
    bool ReadElement(InputRecord& record);
    bool ReadSeparator(InputRecord& record);
    Extent Measure();
    void Take(const Extent& extent, std::size_t column, InputRecord& record);
    bool BeginsRecord(std::size_t at);
    bool SkipInLine();
    unsigned long long SkipToRecord(std::size_t column);

    InputText m_text;
    Place m_place = Place::Line;
};

} // namespace Agent
