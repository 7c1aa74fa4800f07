#include "agent/Run/Unix/Users.h"

#include <cerrno>
#include <fstream>
#include <sys/xattr.h>

namespace Agent {

bool AreThereOtherUsers()
{
    // One line for each range of ids: the first id inside, the first id outside, and their number.
    std::ifstream map("/proc/self/uid_map");
    unsigned long users = 0;
    for (unsigned long inside, outside, count; map >> inside >> outside >> count;)
        users += count;
    return users != 1;
}

// The group bits of an entry with an access list are the maximum that the list grants. The kernel's link to
// an open descriptor leads to that entry and nowhere else, even if the directory was opened to search.
bool MayListLetWrite(const Krt::File::YDirectory& directory, const Krt::YString& name,
                     const struct stat& status)
{
    if ((status.st_mode & S_IWGRP) == 0)
        return false;
    const std::string path =
        "/proc/self/fd/" + std::to_string(directory.GetHandle().Get()) + "/" + name.Bytes();
    return lgetxattr(path.c_str(), "system.posix_acl_access", nullptr, 0) >= 0 ||
           (errno != ENODATA && errno != ENOTSUP);
}

} // namespace Agent
