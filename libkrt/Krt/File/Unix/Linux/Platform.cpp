#include "Krt/File/Unix/Platform.h"
#include "Krt/File/File.h"
#include "Krt/File/Unix/Arguments.h"
#include "Krt/Util/SystemCall.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace Krt::File {

Util::OsResult<Util::YUnxHandle> OpenBeneath(int directory, const char* path)
{
    open_how how{};
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    auto opened = Util::OwnAboveStandardStreams(Util::CallSystem(
        [&] { return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how)); }));
    // A sandbox that is older than the call rejects it with EPERM, which opening for reading never returns.
    if (opened.error == EPERM)
        opened.error = ENOSYS;
    return opened;
}

// fchmod fails for a directory that was opened to search. The kernel's link to an open descriptor leads to
// that directory and nowhere else.
Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode)
{
    const std::string link = "/proc/self/fd/" + std::to_string(directory);
    return Util::CallSystem([&] { return chmod(link.c_str(), mode); });
}

// getdents64 works on the descriptor itself. A DIR would need a duplicate of it and four more calls for each
// directory of a walk.
int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor)
{
    alignas(dirent64) char buffer[32768];
    for (;;) {
        const auto size = Util::CallSystem([&] { return getdents64(directory, buffer, sizeof buffer); });
        if (size.value <= 0)
            return size.error == ENOENT ? 0 : size.error; // a removed directory has no entries
        for (ssize_t offset = 0; offset < size.value;) {
            const auto& entry = *reinterpret_cast<const dirent64*>(buffer + offset);
            offset += entry.d_reclen;
            if (!IsDots(entry.d_name) && !visitor({YString(entry.d_name), entry.d_type, entry.d_ino}))
                return 0;
        }
    }
}

// The kernel has no call for the attributes of an entry of a directory. A path in /proc leads through the
// descriptor; the calls for links do not follow a symlink at its end.
AttributeTarget::AttributeTarget(int directory, const char* name, const char*)
    : m_entryPath("/proc/self/fd/" + std::to_string(directory) + "/" + name), m_path(m_entryPath.c_str())
{}

ssize_t AttributeTarget::List(char* buffer, std::size_t size) const
{
    return m_path ? llistxattr(m_path, buffer, size) : flistxattr(m_handle.Get(), buffer, size);
}

ssize_t AttributeTarget::Get(const char* name, void* buffer, std::size_t size) const
{
    return m_path ? lgetxattr(m_path, name, buffer, size) : fgetxattr(m_handle.Get(), name, buffer, size);
}

int AttributeTarget::Set(const char* name, const void* data, std::size_t size, unsigned int flags) const
{
    return m_path ? lsetxattr(m_path, name, data, size, static_cast<int>(flags))
                  : fsetxattr(m_handle.Get(), name, data, size, static_cast<int>(flags));
}

bool AttributeTarget::IsMissing(int error)
{
    return error == ENODATA;
}

void RemoveAccessLists(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    // Most entries have no attributes at all, which one call shows.
    if (flistxattr(descriptor, nullptr, 0) == 0)
        return;
    for (const char* list : {"system.posix_acl_access", "system.posix_acl_default"}) {
        // Removing requires the owner's rights even if there is nothing to remove.
        const int looked = Util::CallSystem([&] { return fgetxattr(descriptor, list, nullptr, 0); }).error;
        if (looked == ENODATA || looked == ENOTSUP)
            continue;
        const int removed = Util::CallSystem([&] { return fremovexattr(descriptor, list); }).error;
        if (removed != 0 && removed != ENODATA)
            KRT_RAISE_OS(removed, "Failed to remove access list of open file");
    }
}

int TrySync(const Util::YUnxHandle& handle) noexcept
{
    return handle.IsEmpty() ? EBADF : Util::CallSystem([&] { return fsync(handle.Get()); }).error;
}

} // namespace Krt::File
