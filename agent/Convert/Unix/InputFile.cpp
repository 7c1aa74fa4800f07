#include "agent/Convert/RecordReader.h"

#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YUnxHandle.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace Agent {

namespace {

// A signal's handler restarts a read. The wait for a terminal or a pipe therefore comes first, and polls for
// an interrupt by the user.
void WaitForInput(int descriptor)
{
    constexpr int MillisecondsBetweenLooks = 200;
    pollfd waited{descriptor, POLLIN, 0};
    do {
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState,
                         "Interrupted before the end of the input");
    } while (poll(&waited, 1, MillisecondsBetweenLooks) == 0 || IsInterrupted());
}

} // namespace

InputFile::InputFile(const std::string& path) : m_name(path.empty() || path == "-" ? "standard input" : path)
{
    if (path.empty() || path == "-")
        return;
    const EndingOnInterrupts ending; // a named pipe may never have a writer
    m_file = KRT_OS_VALUE(Krt::Util::OpenHandle(path.c_str(), O_RDONLY), "Can't open " << m_name.c_str());
}

std::size_t InputFile::Read(char* buffer, std::size_t size)
{
    const int descriptor = m_file.IsEmpty() ? STDIN_FILENO : m_file.Get();
    WaitForInput(descriptor);
    const ssize_t count = KRT_SYSCALL(read(descriptor, buffer, size), "Can't read " << m_name.c_str());
    return static_cast<std::size_t>(count);
}

} // namespace Agent
