#include "agent/Run/Output.h"

#include "agent/Run/Interrupt.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace Agent {

namespace {

constexpr std::size_t BufferSize = 1 << 16;

constexpr std::chrono::milliseconds BetweenLooks{200};

// The time that all waits of a thread together may still take after an interrupt.
thread_local std::chrono::steady_clock::duration t_patience = std::chrono::milliseconds(500);

// A write to a pipe is restarted after a signal handler. The wait for room therefore comes first, in short
// steps. Returns false if the user has interrupted and the reader takes too long.
bool WaitForRoom(int descriptor)
{
    using std::chrono::steady_clock;
    pollfd waited{descriptor, POLLOUT, 0};
    for (;;) {
        const bool isEnding = IsInterrupted();
        const auto step = isEnding ? std::chrono::ceil<std::chrono::milliseconds>(t_patience) : BetweenLooks;
        const auto begin = steady_clock::now();
        const int ready = poll(&waited, 1, static_cast<int>(step.count()));
        const bool hasRoom = ready > 0 || (ready < 0 && errno != EINTR);
        if (isEnding)
            t_patience -= std::min(t_patience, steady_clock::now() - begin);
        if (hasRoom)
            return true;
        if (isEnding && t_patience == t_patience.zero())
            return false;
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
    if (!m_dropsRest)
        PrintError(rest);
}

void Output::Write(std::string_view& text)
{
    // A pipe that is ready for writing accepts PIPE_BUF bytes at once.
    while (!text.empty()) {
        if (!WaitForRoom(STDOUT_FILENO))
            throw OutputError(EINTR);
        const ssize_t count = write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (count < 0 && errno != EINTR && errno != EAGAIN)
            throw OutputError(errno);
        text.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
}

void Output::ContinueAfterLoss(std::function<void(const OutputError& error)> onLoss, bool dropsRest)
{
    m_onLoss = std::move(onLoss);
    m_dropsRest = dropsRest;
}

bool HasRoomForErrors()
{
    pollfd waited{STDERR_FILENO, POLLOUT, 0};
    return poll(&waited, 1, 0) > 0;
}

void PrintError(std::string_view text)
{
    char part[PIPE_BUF + 1];
    while (!text.empty() && WaitForRoom(STDERR_FILENO)) {
        const std::size_t size = text.copy(part, PIPE_BUF);
        part[size] = '\0';
        std::fputs(part, stderr); // needs no memory
        text.remove_prefix(size);
    }
}

} // namespace Agent
