#include "agent/Run/Output.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Agent {

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

unsigned int OutputWidth()
{
    if (isatty(STDOUT_FILENO) != 1)
        return 0;
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

bool UsesColour()
{
    const char* const refusal = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (refusal == nullptr || *refusal == '\0') && terminal != nullptr &&
           std::strcmp(terminal, "dumb") != 0;
}

} // namespace Agent
