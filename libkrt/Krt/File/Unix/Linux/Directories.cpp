#include "Krt/File/Unix/Directories.h"

#include "Krt/Util/SystemCall.h"

#include <dirent.h>
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

// The system's own call works on the descriptor as it is. A DIR would take a duplicate and four calls more,
// for each directory of a walk.
int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor)
{
    alignas(dirent64) char buffer[32768];
    for (;;) {
        const auto size = Util::CallSystem([&] { return getdents64(directory, buffer, sizeof buffer); });
        if (size.value <= 0)
            return size.error == ENOENT ? 0 : size.error; // a directory that was removed is at its end
        for (ssize_t offset = 0; offset < size.value;) {
            const auto& entry = *reinterpret_cast<const dirent64*>(buffer + offset);
            offset += entry.d_reclen;
            if (!IsDots(entry.d_name) && !visitor({YString(entry.d_name), entry.d_type, entry.d_ino}))
                return 0;
        }
    }
}

} // namespace Krt::File
