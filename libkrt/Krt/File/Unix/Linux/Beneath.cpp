#include "Krt/File/Unix/Beneath.h"

#include "Krt/Util/Retry.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

namespace Krt::File {

using Util::RetryOnInterrupt;

int OpenBeneath(int directory, const char* path)
{
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const auto opened = static_cast<int>(
        RetryOnInterrupt([&] { return syscall(SYS_openat2, directory, path, &how, sizeof how); }));
    // A sandbox that is older than the call refuses it by EPERM, which opening for reading never gives.
    if (opened < 0 && errno == EPERM)
        errno = ENOSYS;
    return opened;
}

// fchmod refuses a directory that was opened to search. The kernel's link to what a descriptor holds leads to
// that and nowhere else.
int SetModeOfDirectory(int directory, mode_t mode)
{
    const std::string link = "/proc/self/fd/" + std::to_string(directory);
    return RetryOnInterrupt([&] { return chmod(link.c_str(), mode); });
}

} // namespace Krt::File
