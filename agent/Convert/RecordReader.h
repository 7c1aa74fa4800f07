// RecordReader: reads a sequence of metadata records from a text, in bounded memory. The text has one of
// three forms, which its beginning determines:
//   lines      one record per line (JSON Lines). A damaged line is reported and skipped.
//   array      one JSON array of records.
//   documents  a sequence of records, each on one line or several.
// In an array and in documents, damage hides where the next record begins. It is reported with its byte
// offset, and reading ends there.
#pragma once

#include "Krt/JSON/YValue.h"
#include "Krt/Util/YUnxHandle.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Agent {

/// The input of a command: a file or standard input, read sequentially.
class InputFile
{
public:
    /// Opens the file, or standard input for "-" and for an empty path. Raises the operating system's error,
    /// and InvalidState when the user interrupts the wait for the writer of a FIFO.
    explicit InputFile(const std::string& path);

    /// Reads up to `size` bytes; returns 0 only at the end. Waits for input until the user interrupts the
    /// program, which raises InvalidState. Raises the operating system's error.
    std::size_t Read(char* buffer, std::size_t size);

private:
    std::string m_name;
    Krt::Util::YUnxHandle m_file; // empty for standard input, since a handle means "no descriptor" by 0
};

/// A window on the text of an input. It grows at its end as more is read, and shrinks at its front as text is
/// consumed. Positions count bytes from the front of the window and stay valid while it grows.
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
    /// Length limit of a record, in bytes. A longer record counts as damaged.
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
