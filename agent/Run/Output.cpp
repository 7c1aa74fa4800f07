#include "agent/Run/Output.h"

#include "Krt/Exception/Raise.h"

#include <cstdio>
#include <string>

namespace Agent {

Output& Output::operator<<(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        KRT_RAISE_OS("Failed to write to standard output");
    return *this;
}

Output& Output::operator<<(unsigned long long number)
{
    return *this << std::to_string(number);
}

void Output::Flush()
{
    if (std::fflush(stdout) != 0)
        KRT_RAISE_OS("Failed to write to standard output");
}

} // namespace Agent
