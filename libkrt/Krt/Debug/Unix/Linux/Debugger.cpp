#include "Krt/Debug/Debugger.h"

#include <csignal>
#include <fstream>
#include <string>

namespace Krt::Debug {

namespace {

bool IsTraced()
{
    static const std::string key = "TracerPid:\t";
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, key.size(), key) == 0)
            return line.compare(key.size(), std::string::npos, "0") != 0;
    }
    return false;
}

} // namespace

void EnterDebugger()
{
    if (IsTraced())
        std::raise(SIGTRAP);
}

} // namespace Krt::Debug
