// InputFile: what a command reads, a file or standard input, front to end.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <cstddef>
#include <string>

namespace Agent {

class InputFile
{
public:
    /// Standard input for "-" and for an empty path. Raises the operating system's error.
    explicit InputFile(const std::string& path);

    /// Up to `size` bytes; 0 at the end alone. Waits for them as long as the user doesn't interrupt the
    /// program, which raises InvalidState; raises the operating system's error.
    std::size_t Read(char* buffer, std::size_t size);

private:
    std::string m_name;
    Krt::Util::YUnxHandle m_file; // empty for standard input, whose descriptor a handle takes for none
};

} // namespace Agent
