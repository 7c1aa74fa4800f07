#include "agent/Access/Unix/Process.h"

#include <cerrno>
#include <csignal>
#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace Agent {

ProcessIdentity CurrentProcess()
{
    ProcessIdentity identity;
    identity.pid = static_cast<std::uint32_t>(getpid());
    identity.uid = getuid();
    identity.gid = getgid();
    identity.userName = std::to_string(identity.uid);
    passwd entry;
    passwd* found = nullptr;
    std::vector<char> buffer(1 << 16);
    if (getpwuid_r(identity.uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr)
        identity.userName = found->pw_name;
    return identity;
}

bool DoesProcessExist(std::uint32_t pid)
{
    if (pid == 0 || pid > INT32_MAX)
        return false;
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH;
}

} // namespace Agent
