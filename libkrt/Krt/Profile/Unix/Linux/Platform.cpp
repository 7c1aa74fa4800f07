#include "Krt/Profile/Unix/Platform.h"

#include <sys/stat.h>

namespace Krt::Profile {

namespace {

long long Nanoseconds(const timespec& time)
{
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

} // namespace

const char* SystemPath()
{
    return "/etc/kbagent/kbagent.conf";
}

long long ModifiedAt(const struct stat& status)
{
    return Nanoseconds(status.st_mtim);
}

long long ChangedAt(const struct stat& status)
{
    return Nanoseconds(status.st_ctim);
}

} // namespace Krt::Profile
