#include "Krt/File/YDirectory.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Arguments.h"
#include "Krt/File/Unix/Platform.h"
#include "Krt/Util/YUnxHandle.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <string>

namespace Krt::File {

namespace {

constexpr int DirectoryFlags = O_RDONLY | O_DIRECTORY;
#ifdef O_PATH
constexpr int SearchFlags = O_PATH | O_DIRECTORY;
#else
constexpr int SearchFlags = O_SEARCH | O_DIRECTORY;
#endif

// Opens an entry close-on-exec and above the standard streams. The mode applies if a file is created.
Util::OsResult<Util::YUnxHandle> OpenAt(int directory, const char* name, int flags)
{
    return Util::OwnAboveStandardStreams(
        Util::CallSystem([&] { return openat(directory, name, flags | O_CLOEXEC, S_IRUSR | S_IWUSR); }));
}

Util::OsResult<int> StatAt(int directory, const char* name, struct stat& status)
{
    return Util::CallSystem([&] { return fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW); });
}

} // namespace

YDirectory YDirectory::Open(const YPath& path)
{
    return YDirectory(
        KRT_OS_VALUE(Util::OpenHandle(path.AsUnixPath(false).CStr(), DirectoryFlags | O_NOFOLLOW),
                     "Failed to open directory: " << path));
}

YDirectory YDirectory::OpenFollowing(const YPath& path)
{
    return YDirectory(KRT_OS_VALUE(Util::OpenHandle(path.AsUnixPath(false).CStr(), DirectoryFlags),
                                   "Failed to open directory: " << path));
}

YDirectory YDirectory::OpenToSearch(const YPath& path)
{
    return YDirectory(KRT_OS_VALUE(Util::OpenHandle(path.AsUnixPath(false).CStr(), SearchFlags),
                                   "Failed to open directory: " << path));
}

YDirectory YDirectory::OpenDirectory(const YString& name) const
{
    return YDirectory(
        KRT_OS_VALUE(OpenAt(m_handle.Get(), CheckEntryName(name, __func__), DirectoryFlags | O_NOFOLLOW),
                     "Failed to open directory: " << name));
}

YDirectory YDirectory::OpenDirectoryToSearch(const YString& name) const
{
    return YDirectory(
        KRT_OS_VALUE(OpenAt(m_handle.Get(), CheckEntryName(name, __func__), SearchFlags | O_NOFOLLOW),
                     "Failed to open directory: " << name));
}

YDirectory YDirectory::OpenBelow(std::span<const YString> names) const
{
    std::string path;
    for (const YString& name : names) {
        path += path.empty() ? "" : "/";
        path += CheckEntryName(name, __func__);
    }
    // A path that is too long for one call is resolved by name, as on systems without the call.
    if (path.size() < PATH_MAX) {
        auto opened = OpenBeneath(m_handle.Get(), path.c_str());
        if (opened.error != ENOSYS)
            return YDirectory(KRT_OS_VALUE(std::move(opened), "Failed to open directory: " << path.c_str()));
    }
    YDirectory directory = OpenDirectory(names.front());
    for (const YString& name : names.subspan(1))
        directory = directory.OpenDirectory(name);
    return directory;
}

Util::YUnxHandle YDirectory::OpenFile(const YString& name) const
{
    return KRT_OS_VALUE(
        OpenAt(m_handle.Get(), CheckEntryName(name, __func__), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY),
        "Failed to open file: " << name);
}

Util::YUnxHandle YDirectory::CreateFile(const YString& name) const
{
    return KRT_OS_VALUE(
        OpenAt(m_handle.Get(), CheckEntryName(name, __func__), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW),
        "Failed to create file: " << name);
}

struct stat YDirectory::Stat() const
{
    return File::Stat(m_handle);
}

struct stat YDirectory::Stat(const YString& name) const
{
    struct stat status;
    KRT_OS_VALUE(StatAt(m_handle.Get(), CheckEntryName(name, __func__), status), "Failed to stat: " << name);
    return status;
}

bool YDirectory::StatIfPresent(const YString& name, struct stat& status) const
{
    struct stat found;
    const auto result = StatAt(m_handle.Get(), CheckEntryName(name, __func__), found);
    if (result.error == ENOENT)
        return false;
    KRT_OS_VALUE(result, "Failed to stat: " << name);
    status = found;
    return true;
}

YString YDirectory::ReadSymbolicLink(const YString& name) const
{
    const char* entry = CheckEntryName(name, __func__);
    char first[PATH_MAX];
    std::string grown;
    char* buffer = first;
    std::size_t room = sizeof(first);
    for (;;) {
        const ssize_t size = KRT_SYSCALL(readlinkat(m_handle.Get(), entry, buffer, room),
                                         "Failed to read symbolic link: " << name);
        // If the buffer is full, the target may be truncated.
        if (static_cast<std::size_t>(size) < room)
            return YString(std::string_view(buffer, static_cast<std::size_t>(size)));
        room *= 2;
        grown.resize(room);
        buffer = grown.data();
    }
}

void YDirectory::VisitEntries(const std::function<bool(const DirectoryEntry&)>& visitor) const
{
    // A directory that was just opened is at its beginning.
    if (m_isListed)
        KRT_SYSCALL(lseek(m_handle.Get(), 0, SEEK_SET), "Failed to list directory");
    m_isListed = true;
    if (const int error = ListEntries(m_handle.Get(), visitor))
        KRT_RAISE_OS(error, "Failed to list directory");
}

// Changes of entries.

void YDirectory::MakeDirectory(const YString& name, unsigned int mode) const
{
    const char* entry = CheckEntryName(name, __func__);
    const auto bits = static_cast<mode_t>(mode & 07777);
    KRT_SYSCALL(mkdirat(m_handle.Get(), entry, bits), "Failed to create directory: " << name);
}

void YDirectory::MakeSymbolicLink(const YString& name, const YString& target) const
{
    const char* entry = CheckEntryName(name, __func__);
    KRT_SYSCALL(symlinkat(target.CStr(), m_handle.Get(), entry),
                "Failed to create symbolic link: " << name << " to: " << target);
}

void YDirectory::MakeFifo(const YString& name, unsigned int mode) const
{
    const char* entry = CheckEntryName(name, __func__);
    const auto bits = static_cast<mode_t>(mode & 07777);
    KRT_SYSCALL(mkfifoat(m_handle.Get(), entry, bits), "Failed to create FIFO: " << name);
}

void YDirectory::MakeDevice(const YString& name, unsigned int mode, unsigned long long device) const
{
    const char* entry = CheckEntryName(name, __func__);
    KRT_SYSCALL(mknodat(m_handle.Get(), entry, static_cast<mode_t>(mode), static_cast<dev_t>(device)),
                "Failed to create device: " << name);
}

void YDirectory::MakeHardLink(const YDirectory& fromDirectory, const YString& fromName,
                              const YString& name) const
{
    const char* from = CheckEntryName(fromName, __func__);
    const char* entry = CheckEntryName(name, __func__);
    KRT_SYSCALL(linkat(fromDirectory.m_handle.Get(), from, m_handle.Get(), entry, 0),
                "Failed to create hard link: " << name << " to: " << fromName);
}

void YDirectory::Rename(const YString& from, const YDirectory& toDirectory, const YString& to) const
{
    const char* oldName = CheckEntryName(from, __func__);
    const char* newName = CheckEntryName(to, __func__);
    KRT_SYSCALL(renameat(m_handle.Get(), oldName, toDirectory.m_handle.Get(), newName),
                "Failed to rename: " << from << " to: " << to);
}

void YDirectory::RemoveFile(const YString& name) const
{
    const char* entry = CheckEntryName(name, __func__);
    const auto removed = Util::CallSystem([&] { return unlinkat(m_handle.Get(), entry, 0); });
    if (!removed && removed.error != ENOENT)
        KRT_RAISE_OS(removed.error, "Failed to remove file: " << name);
}

void YDirectory::RemoveDirectory(const YString& name) const
{
    const char* entry = CheckEntryName(name, __func__);
    const auto removed = Util::CallSystem([&] { return unlinkat(m_handle.Get(), entry, AT_REMOVEDIR); });
    if (!removed && removed.error != ENOENT)
        KRT_RAISE_OS(removed.error, "Failed to remove directory: " << name);
}

void YDirectory::SetMode(unsigned int mode) const
{
    KRT_OS_VALUE(SetModeOfDirectory(m_handle.Get(), static_cast<mode_t>(mode & 07777)),
                 "Failed to set mode of directory");
}

} // namespace Krt::File
