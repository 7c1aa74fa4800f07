#include "Krt/Environment/Process.h"

#include "Krt/Environment/Unix/Platform.h"
#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <libproc.h>
#include <sys/param.h>
#include <unistd.h>

#include <string_view>
#include <vector>

namespace Krt::Environment {

namespace {

bool HasName(int process, std::string_view name)
{
    char text[PROC_PIDPATHINFO_MAXSIZE];
    int size = proc_pidpath(process, text, sizeof text);
    if (size <= 0) {
        // A program that was replaced since has no path. The kernel's name is used unless it may have been
        // cut.
        constexpr int KernelNameBytes = 2 * MAXCOMLEN;
        size = proc_name(process, text, sizeof text);
        if (size >= KernelNameBytes)
            return false;
    }
    const std::string_view known(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    return known.substr(known.rfind('/') + 1) == name;
}

} // namespace

bool IsPrivilegeRaised()
{
    return issetugid() != 0;
}

int InheritStandardStreamsAlone(posix_spawnattr_t& attributes, posix_spawn_file_actions_t& actions)
{
    short flags = 0;
    int error = posix_spawnattr_getflags(&attributes, &flags);
    if (error == 0)
        error =
            posix_spawnattr_setflags(&attributes, static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT));
    for (int stream = STDIN_FILENO; error == 0 && stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) != -1)
            error = posix_spawn_file_actions_addinherit_np(&actions, stream);
    }
    return error;
}

int FindProcess(const YString& name, int except)
{
    // Room for processes that start meanwhile.
    std::vector<int> processes(static_cast<std::size_t>(proc_listallpids(nullptr, 0)) + 64);
    const int count =
        KRT_SYSCALL(proc_listallpids(processes.data(), static_cast<int>(processes.size() * sizeof(int))),
                    "Failed to list the processes");
    processes.resize(static_cast<std::size_t>(count));
    for (const int process : processes) {
        if (process != except && HasName(process, name.Bytes()))
            return process;
    }
    return 0;
}

} // namespace Krt::Environment
