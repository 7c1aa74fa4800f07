// RecordReader: reads metadata records from a text, one after the other, in bounded memory. The text has one
// of three forms, which its beginning decides:
//   lines      one record per line (JSON Lines). A damaged line is reported and skipped.
//   array      one JSON array of records.
//   documents  records one after the other, each over one line or several.
// In an array and in documents, damage hides where the next record begins: it is reported with its byte
// offset, and reading ends there.
#pragma once

#include "agent/Convert/InputText.h"

#include "Krt/JSON/YValue.h"

namespace Agent {

struct InputRecord
{
    unsigned long long line = 0;               ///< line where it begins, from 1 on
    boost::shared_ptr<Krt::JSON::YValue> json; ///< a JSON object; null if it is damaged
    Krt::YString reason;                       ///< why `json` is null

    /// Returns the JSON object; `json` must not be null.
    const Krt::JSON::YObject& Object() const { return json->AsObject(); }
};

class RecordReader
{
public:
    /// Length limit of a record, in bytes. A longer one counts as damaged.
    static constexpr std::size_t RecordLimit = 16 << 20;

    /// Reads a file, or standard input for "-" and for an empty path. Raises if it can't be opened.
    explicit RecordReader(const std::string& path);

    /// Reads the next record, or the reason why it is damaged; returns false at the end. Raises if the input
    /// can't be read, or if the user interrupts the program.
    bool Next(InputRecord& record);

private:
    enum class Form
    {
        Undecided,
        Lines,
        Array,
        Documents,
        Ended
    };

    Form Decide();
    void ReadLine(InputRecord& record);
    bool ReadElement(InputRecord& record);
    void ReadDocument(InputRecord& record);
    void End(InputRecord& record, const Krt::YString& reason);

    InputText m_text;
    Form m_form = Form::Undecided;
    bool m_isFirstElement = true;
};

} // namespace Agent
