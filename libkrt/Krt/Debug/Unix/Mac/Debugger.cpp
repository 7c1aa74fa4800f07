#include "Krt/Debug/Debugger.h"

#include <sys/sysctl.h>
#include <sys/types.h>
#include <unistd.h>

#include <csignal>

namespace Krt::Debug {

void EnterDebugger()
{
    int query[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, getpid()};
    kinfo_proc process{};
    size_t size = sizeof process;
    if (sysctl(query, 4, &process, &size, nullptr, 0) == 0 && (process.kp_proc.p_flag & P_TRACED) != 0)
        std::raise(SIGTRAP);
}

} // namespace Krt::Debug
