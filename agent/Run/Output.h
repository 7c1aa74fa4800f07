// The process's standard streams. Output is standard output, buffered: a write that fails raises, so that a
// full disk or a closed pipe is never taken for success. A write that waits for the reader of a pipe ends
// when the user interrupts the program.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Agent {

/// Standard output can't be written. Not a YError, so that it is not taken for the failure of an entry.
class OutputError : public std::runtime_error
{
public:
    explicit OutputError(int number);
    /// Whether the reader of the pipe has ended, as "head" does when it has enough.
    bool IsPipeClosed() const { return m_isPipeClosed; }

private:
    bool m_isPipeClosed;
};

class Output
{
public:
    Output() = default;
    /// Writes what is buffered, if it can, so that a run that fails prints what it found before.
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    /// Appends the text. Raises OutputError, as Flush does. What was buffered is dropped then.
    Output& operator<<(std::string_view text);
    Output& operator<<(unsigned long long number);
    /// Writes what is buffered.
    void Flush();

private:
    std::string m_buffer;
};

/// Opens what is closed of descriptors 0 to 2, so that no file of a store or a target gets one of them and is
/// written to as if it were the terminal. Their use still fails, as it would on a closed one. Called first.
void OpenMissingStreams();

/// Whether standard error is a terminal.
bool IsErrorTerminal();

/// The columns of the terminal that standard output is, 80 if its size is unknown; 0 if it is no terminal.
unsigned int OutputWidth();

} // namespace Agent
