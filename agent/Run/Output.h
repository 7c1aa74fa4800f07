// The process's standard streams. Output is standard output, buffered. A failed write raises, so that a full
// disk or a closed pipe is never mistaken for success. If a write waits for the reader of a pipe, an
// interrupt by the user ends it: from then on, both streams together wait for half a second at most.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Agent {

/// Standard output can't be written. Not a YError, so that it does not count as the failure of an entry.
class OutputError : public std::runtime_error
{
public:
    explicit OutputError(int number);
    /// Returns true if the reader of the pipe has ended, as "head" does when it has read enough.
    bool IsPipeClosed() const { return m_isPipeClosed; }

private:
    bool m_isPipeClosed;
};

class Output
{
public:
    Output() = default;
    /// Writes the buffer, if possible, so that a run that fails prints what it found before.
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    /// Appends the text. Raises OutputError, as Flush does; the buffer is then dropped.
    Output& operator<<(std::string_view text);
    Output& operator<<(unsigned long long number);
    /// From now on, a failed write does not raise, unless the user interrupts: `onLoss` is called once, and
    /// what was not written goes to standard error, as does all that follows; with `dropsRest`, it is
    /// dropped. Without `onLoss`, a failed write raises again.
    void ContinueAfterLoss(std::function<void(const OutputError& error)> onLoss, bool dropsRest = false);
    /// Writes the buffer.
    void Flush();
    /// Returns true if the last line has no end yet.
    bool IsInLine() const { return m_last != '\n'; }

private:
    // Removes what was written from the text.
    static void Write(std::string_view& text);

    std::string m_buffer;
    char m_last = '\n';
    std::function<void(const OutputError& error)> m_onLoss;
    bool m_dropsRest = false;
    bool m_isLost = false;
};

/// Returns true if PrintError does not have to wait. Any thread.
bool HasRoomForErrors();

/// Writes text without zero bytes to standard error. Any thread. Drops it if it cannot be written, or if the
/// reader of a pipe does not take it in time after an interrupt. Allocates nothing.
void PrintError(std::string_view text);

/// Opens those of descriptors 0 to 2 that are closed, so that no file of a repository or a target gets their
/// numbers and is written to as if it were the terminal. Using them still fails, as it would for a closed
/// descriptor. The program calls it first.
void OpenMissingStreams();

/// Returns true if standard error is a terminal.
bool IsErrorTerminal();

/// Returns the width of the terminal that is standard error, in columns: 80 if it is unknown.
unsigned int ErrorWidth();

/// Returns the width of standard output in columns: 80 if the terminal's size is unknown, 0 if it is not a
/// terminal.
unsigned int OutputWidth();

/// Returns true if standard output is a terminal that shows colours, and the variable NO_COLOR is not set.
bool UsesColour();

} // namespace Agent
