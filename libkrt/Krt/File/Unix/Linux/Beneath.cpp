#include "Krt/File/Unix/Beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>

namespace Krt::File {

Util::OsResult<Util::YUnxHandle> OpenBeneath(int directory, const char* path)
{
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    auto opened = Util::OwnAboveStandardStreams(Util::CallSystem(
        [&] { return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how)); }));
    // A sandbox that is older than the call refuses it by EPERM, which opening for reading never gives.
    if (opened.error == EPERM)
        opened.error = ENOSYS;
    return opened;
}

// fchmod refuses a directory that was opened to search. The kernel's link to what a descriptor holds leads to
// that and nowhere else.
Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode)
{
    const std::string link = "/proc/self/fd/" + std::to_string(directory);
    return Util::CallSystem([&] { return chmod(link.c_str(), mode); });
}

} // namespace Krt::File
