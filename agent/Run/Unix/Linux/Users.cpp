#include "agent/Run/Unix/Users.h"

#include <cerrno>
#include <fstream>
#include <sys/xattr.h>

namespace Agent {

bool AreThereOtherUsers()
{
    // A line for each range of ids: the first inside, the first outside, how many.
    std::ifstream map("/proc/self/uid_map");
    unsigned long users = 0;
    for (unsigned long inside, outside, count; map >> inside >> outside >> count;)
        users += count;
    return users != 1;
}

// The group's bits of an entry with a list are the most that the list gives.
bool MayListLetWrite(const std::string& path, const struct stat& status)
{
    return (status.st_mode & S_IWGRP) != 0 &&
           (lgetxattr(path.c_str(), "system.posix_acl_access", nullptr, 0) >= 0 ||
            (errno != ENODATA && errno != ENOTSUP));
}

} // namespace Agent
