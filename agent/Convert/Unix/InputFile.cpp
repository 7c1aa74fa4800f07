#include "agent/Convert/RecordReader.h"

#include "agent/Run/Input.h"

#include "Krt/Exception/Raise.h"

#include <unistd.h>

namespace Agent {

InputFile::InputFile(const std::string& path) : m_name(path.empty() || path == "-" ? "standard input" : path)
{
    if (path.empty() || path == "-")
        return;
    m_file = KRT_OS_VALUE(OpenInput(path), "Can't open " << m_name.c_str());
}

std::size_t InputFile::Read(char* buffer, std::size_t size)
{
    const int descriptor = m_file.IsEmpty() ? STDIN_FILENO : m_file.Get();
    WaitForInput(descriptor); // a signal's handler restarts a read
    const ssize_t count = KRT_SYSCALL(read(descriptor, buffer, size), "Can't read " << m_name.c_str());
    return static_cast<std::size_t>(count);
}

} // namespace Agent
