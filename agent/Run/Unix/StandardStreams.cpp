#include "agent/Run/Output.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Agent {

namespace {

unsigned int WidthOf(int descriptor)
{
    constexpr unsigned int usual = 80;
    winsize size{};
    return ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : usual;
}

} // namespace

void OpenMissingStreams()
{
    // open returns the lowest free descriptor. Each is opened in the wrong direction, so that using it fails.
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1)
            continue;
        if (open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY) != descriptor)
            std::abort();
    }
}

bool IsErrorTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

unsigned int ErrorWidth()
{
    return WidthOf(STDERR_FILENO);
}

unsigned int OutputWidth()
{
    return isatty(STDOUT_FILENO) == 1 ? WidthOf(STDOUT_FILENO) : 0;
}

bool UsesColour()
{
    const char* const refusal = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (refusal == nullptr || *refusal == '\0') && terminal != nullptr &&
           std::strcmp(terminal, "dumb") != 0;
}

} // namespace Agent
