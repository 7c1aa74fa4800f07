#include "Krt/File/Unix/Platform.h"
#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/File/Unix/Arguments.h"
#include "Krt/Memory/Freer.h"
#include "Krt/Util/SystemCall.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <memory>

namespace Krt::File {

namespace {

using Listing = std::unique_ptr<DIR, Memory::Freer<&closedir>>;

// Owns a duplicate of the descriptor: opening "." again would require the right to search, which reading the
// names does not.
Util::OsResult<Listing> OpenListing(int directory)
{
    const auto duplicate =
        Util::CallSystem([&] { return fcntl(directory, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); });
    if (!duplicate)
        return {nullptr, duplicate.error};
    if (DIR* const opened = fdopendir(duplicate.value))
        return {Listing(opened), 0};
    const int error = errno;
    close(duplicate.value);
    return {nullptr, error};
}

// Null with error 0 at the end.
Util::OsResult<const dirent*> NextEntry(DIR* listing)
{
    const dirent* entry;
    do {
        errno = 0;
        entry = readdir(listing);
    } while (entry == nullptr && errno == EINTR);
    return {entry, entry == nullptr ? errno : 0};
}

} // namespace

// Not available here: the caller resolves the path component by component.
Util::OsResult<Util::YUnxHandle> OpenBeneath(int, const char*)
{
    return {Util::YUnxHandle(), ENOSYS};
}

Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode)
{
    return Util::CallSystem([&] { return fchmod(directory, mode); });
}

int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor)
{
    const auto listing = OpenListing(directory);
    if (!listing)
        return listing.error;
    for (;;) {
        const auto next = NextEntry(listing.value.get());
        if (next.value == nullptr)
            return next.error;
        const dirent& entry = *next.value;
        if (!IsDots(entry.d_name) && !visitor({YString(entry.d_name), entry.d_type, entry.d_ino}))
            return 0;
    }
}

// O_SYMLINK opens a link itself, so that the calls for open files serve for entries of every type.
AttributeTarget::AttributeTarget(int directory, const char* name, const char* function)
{
    auto opened = Util::OwnAboveStandardStreams(Util::CallSystem(
        [&] { return openat(directory, name, O_RDONLY | O_SYMLINK | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
    if (!opened)
        KRT_RAISE_OS_AS(function, MessageType::General, opened.error,
                        "Failed to open for extended attributes: " << name);
    m_handle = std::move(opened.value);
}

ssize_t AttributeTarget::List(char* buffer, std::size_t size) const
{
    return m_path ? listxattr(m_path, buffer, size, XATTR_NOFOLLOW)
                  : flistxattr(m_handle.Get(), buffer, size, 0);
}

ssize_t AttributeTarget::Get(const char* name, void* buffer, std::size_t size) const
{
    return m_path ? getxattr(m_path, name, buffer, size, 0, XATTR_NOFOLLOW)
                  : fgetxattr(m_handle.Get(), name, buffer, size, 0, 0);
}

int AttributeTarget::Set(const char* name, const void* data, std::size_t size, unsigned int flags) const
{
    return m_path ? setxattr(m_path, name, data, size, 0, static_cast<int>(flags) | XATTR_NOFOLLOW)
                  : fsetxattr(m_handle.Get(), name, data, size, 0, static_cast<int>(flags));
}

bool AttributeTarget::IsMissing(int error)
{
    return error == ENOATTR;
}

void RemoveAccessLists(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    // Removing requires the owner's rights even if there is nothing to remove.
    const acl_t list = acl_get_fd_np(descriptor, ACL_TYPE_EXTENDED);
    if (list == nullptr && (errno == ENOENT || errno == ENOTSUP))
        return;
    if (list != nullptr)
        acl_free(list);
    const filesec_t security = filesec_init();
    if (security == nullptr)
        KRT_RAISE_OS(errno, "Failed to remove access list of open file");
    filesec_set_property(security, FILESEC_ACL, _FILESEC_REMOVE_ACL);
    const auto changed = Util::CallSystem([&] { return fchmodx_np(descriptor, security); });
    filesec_free(security);
    KRT_OS_VALUE(changed, "Failed to remove access list of open file");
}

// On macOS fsync leaves the content in the drive's cache. A file system that cannot flush the drive supports
// only fsync.
int TrySync(const Util::YUnxHandle& handle) noexcept
{
    if (handle.IsEmpty())
        return EBADF;
    if (Util::CallSystem([&] { return fcntl(handle.Get(), F_FULLFSYNC); }))
        return 0;
    return Util::CallSystem([&] { return fsync(handle.Get()); }).error;
}

} // namespace Krt::File
