#include "agent/Run/Output.h"

#include "agent/Run/Interrupt.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace Agent {

namespace {

constexpr std::size_t BufferSize = 1 << 16;

// A write to a pipe is restarted after a signal handler. The wait for room therefore comes first, in short
// steps.
void WaitForRoom()
{
    constexpr int MillisecondsBetweenLooks = 200;
    pollfd waited{STDOUT_FILENO, POLLOUT, 0};
    for (;;) {
        const int ready = poll(&waited, 1, MillisecondsBetweenLooks);
        if (ready > 0 || (ready < 0 && errno != EINTR))
            return;
        if (IsInterrupted())
            throw OutputError(EINTR);
    }
}

} // namespace

OutputError::OutputError(int number)
    : std::runtime_error("Failed to write to standard output: " + std::generic_category().message(number)),
      m_isPipeClosed(number == EPIPE)
{}

Output::~Output()
{
    try {
        Flush();
    } catch (const std::exception&) {
        // The run has already failed for another reason.
    }
}

Output& Output::operator<<(std::string_view text)
{
    m_buffer += text;
    m_last = text.empty() ? m_last : text.back();
    if (m_buffer.size() >= BufferSize)
        Flush();
    return *this;
}

Output& Output::operator<<(unsigned long long number)
{
    return *this << std::to_string(number);
}

void Output::Flush()
{
    const std::string text = std::move(m_buffer);
    m_buffer.clear();
    std::string_view rest = text;
    if (!m_isLost) {
        try {
            return Write(rest);
        } catch (const OutputError& error) {
            if (!m_onLoss || IsInterrupted())
                throw;
            m_isLost = true;
            m_onLoss(error);
        }
    }
    std::fwrite(rest.data(), 1, rest.size(), stderr);
}

void Output::Write(std::string_view& text)
{
    // A pipe that is ready for writing accepts PIPE_BUF bytes at once.
    while (!text.empty()) {
        WaitForRoom();
        const ssize_t count = write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            throw OutputError(errno);
        text.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
}

void Output::ContinueAfterLoss(std::function<void(const OutputError& error)> onLoss)
{
    m_onLoss = std::move(onLoss);
}

} // namespace Agent
