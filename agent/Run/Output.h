// Output: standard output, buffered. A write that fails raises, so that a full disk or a closed pipe is never
// taken for success.
#pragma once

#include <string_view>

namespace Agent {

class Output
{
public:
    /// Appends text as it stands. Raises the operating system's error, as Flush does.
    Output& operator<<(std::string_view text);
    Output& operator<<(unsigned long long number);
    /// Writes what is buffered.
    void Flush();
};

} // namespace Agent
