#include "agent/Access/Unix/Process.h"

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

} // namespace Agent
