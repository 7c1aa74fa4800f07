#include "Backup/File/Unix/File.h"

#include "Backup/Volume/Unix/Util.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Profile/YProfile.h"
#include "Krt/Thread/YMutex.h"
#include "Krt/Util/YUnxHandle.h"

#include <atomic>
#include <fcntl.h>
#include <optional>
#include <set>
#include <unistd.h>
#include <utime.h>

namespace Backup::File {

using Krt::ErrorCode;
using Krt::MessageType;
using Krt::Exception::YError;

namespace {

constexpr unsigned int LowWord = 0xFFFF;
constexpr unsigned int DefaultDirectoryMode = 0x1A4;
constexpr unsigned int CreatedFileMode = 0x1C0;
// The 32-bit total of a transfer if its first call fails.
constexpr unsigned int FailedTotal = 0xFFFFFFFF;

const char* Native(const YPath& path)
{
    return path.AsUnixPath(false).CStr();
}

// Returns the error number of a failed call: errno for -1, any other negative result itself.
int ErrorOf(int result)
{
    return result == -1 ? errno : result;
}

// Repeats the call on EINTR. Returns the error number of a failed call, which may be 0, or nothing after a
// success.
template <class Call>
std::optional<int> Perform(Call call)
{
    const int result = Krt::Util::CallSystem(call).value;
    return result < 0 ? std::optional(ErrorOf(result)) : std::nullopt;
}

void SeekTo(int fd, unsigned long long offset, const char* function)
{
    const off_t position = lseek(fd, static_cast<off_t>(offset), SEEK_SET);
    if (position == -1 || static_cast<unsigned long long>(position) != offset)
        KRT_RAISE_OS_AS(function, MessageType::General, errno, "Could not seek in file");
}

// Adds up transfers until `count` bytes are transferred. errno is read after transfers that succeeded, too: a
// short one continues only while errno is EINTR, which is not cleared beforehand. A failed call adds -1,
// which is FailedTotal for the first call and one byte less for a later one.
template <class Call>
Krt::Util::OsResult<unsigned int> TransferAll(unsigned int count, Call call)
{
    unsigned int total = 0;
    do
        total += static_cast<unsigned int>(call(total, count - total));
    while (total < count && errno == EINTR);
    return {total, errno};
}

// Returns the descriptor, above those of the standard streams. A negative result other than -1 counts as a
// descriptor.
Krt::Util::OsResult<int> OpenForBackup(const YPath& path, int flags)
{
    const auto opened =
        Krt::Util::CallSystem([&] { return open(Native(path), flags | O_NOFOLLOW, CreatedFileMode); });
    if (opened.value < -1)
        return {opened.value, 0};
    auto owned = Krt::Util::OwnAboveStandardStreams(opened);
    return {owned.value.Release(), owned.error};
}

// Returns the mount points that the configuration admits. The set is complete before the flag is set and
// never changes afterwards, so it is read without the lock.
const std::set<YPath>& GetIncludedMountpoints()
{
    static Krt::Thread::YMutex s_mutex;
    static std::atomic<bool> s_includedMountpointsLoaded{false};
    static std::set<YPath> s_includedMountpoints;

    if (s_includedMountpointsLoaded.load())
        return s_includedMountpoints;
    const Krt::Thread::YMutex::YLock lock = s_mutex.Lock();
    if (!s_includedMountpointsLoaded.load()) {
        const YString paths =
            Krt::Profile::OpenSystem()->Get<YString>("configuration", "IncludedMountpoints", YString());
        for (const YString& path : paths.SectionVector(',', true, true))
            s_includedMountpoints.insert(YPath(path));
        s_includedMountpointsLoaded.exchange(true);
    }
    return s_includedMountpoints;
}

} // namespace

void StatFile(const YPath& path, struct stat* status)
{
    if (const auto error = Perform([&] { return lstat(Native(path), status); }))
        KRT_RAISE_OS_ON(MessageType::FileStat, *error, "Failed to stat file: " << path);
}

unsigned long long GetFileInode(const YPath& path, unsigned long long* allocated)
{
    struct stat status;
    StatFile(path, &status);
    if (allocated != nullptr)
        *allocated = static_cast<unsigned long long>(status.st_blocks) << 9;
    return status.st_ino;
}

unsigned long long GetFileSize(const YPath& path)
{
    try {
        return Krt::File::GetSize(path);
    } catch (const YError& error) {
        KRT_LOG_FREE(MessageType::FileInfo, "Failed to get file size for file " << path << " " << error);
        return 0;
    }
}

unsigned int GetModeFlags(const YPath& path)
{
    struct stat status;
    StatFile(path, &status);
    return status.st_mode;
}

bool IsSpecialFile(const YPath& path)
{
    try {
        switch (GetModeFlags(path) & Krt::File::FileTypeMask) {
        case S_IFIFO:
        case S_IFCHR:
        case S_IFBLK:
        case S_IFSOCK:
            return true;
        default:
            return false;
        }
    } catch (const YError& error) {
        if (error.GetOsError() == EACCES)
            return true;
        throw;
    }
}

bool DoesDirExist(const YPath& path)
{
    const unsigned int attributes = Krt::File::GetAttributesNoException(path);
    return attributes != Krt::File::AttributesUnknown && (attributes & Krt::File::AttributeDirectory) != 0;
}

YPath NormalizePathCase(const YPath& path)
{
    return path;
}

void CreateHardlink(const YPath& link, const YPath& existing)
{
    if (const auto error = Perform([&] { return ::link(Native(existing), Native(link)); }))
        KRT_RAISE_OS(*error);
}

YPath GetSymbolicLinkTarget(const YPath& path)
{
    KRT_RAISE_UNLESS(Krt::File::IsSymbolicLink(path), ErrorCode::InvalidState);
    char target[LinkTargetSize + 1];
    const ssize_t length = readlink(Native(path), target, LinkTargetSize);
    if (length == -1)
        KRT_RAISE_OS(errno, "Could not read symbolic link");
    target[length] = '\0';
    return YPath(target);
}

void CreateSymbolicLink(const YPath& link, const YPath& target)
{
    Krt::File::DeleteFile(link);
    Krt::File::CreatePath(link, false);
    if (const auto error = Perform([&] { return symlink(Native(target), Native(link)); }))
        KRT_RAISE_OS(*error, "Failed to create symlink from: " << link << " To: " << target);
}

void CreateDirectory(const YPath& path, unsigned int mode)
{
    const auto error = Perform([&] { return mkdir(Native(path), static_cast<mode_t>(mode & LowWord)); });
    if (error && *error != EEXIST)
        KRT_RAISE_OS(*error, "Failed to create directory: " << path);
}

void CreateDirectory(const YPath& path)
{
    CreateDirectory(path, DefaultDirectoryMode);
}

void SetFileTime(const YPath& path, unsigned long long access, unsigned long long write)
{
    const utimbuf times{static_cast<time_t>(access), static_cast<time_t>(write)};
    if (const auto error = Perform([&] { return utime(Native(path), &times); }))
        KRT_RAISE_OS(*error, "Failed to set file time on file: " << path);
}

void SetModeFlags(const YPath& path, unsigned int flags)
{
    if ((flags & Krt::File::FileTypeMask) == Krt::File::FileTypeSymbolicLink)
        return;
    if (const auto error = Perform([&] { return chmod(Native(path), static_cast<mode_t>(flags & LowWord)); }))
        KRT_RAISE_OS(*error, "Failed to set mode flags on file: " << path);
}

void SetUID(const YPath& path, unsigned int uid)
{
    if (const auto error = Perform([&] { return chown(Native(path), uid, static_cast<gid_t>(-1)); }))
        KRT_RAISE_OS(*error, "Failed to set UID on file: " << path);
}

void SetGID(const YPath& path, unsigned int gid)
{
    if (const auto error = Perform([&] { return chown(Native(path), static_cast<uid_t>(-1), gid); }))
        KRT_RAISE_OS(*error, "Failed to set GID on file: " << path);
}

int OpenForBackupWrite(const YPath& path)
{
    return KRT_OS_VALUE(OpenForBackup(path, O_RDWR | O_CREAT | O_TRUNC),
                        "Could not open file for write: " << path);
}

int OpenForBackupRead(const YPath& path)
{
    return KRT_OS_VALUE(OpenForBackup(path, O_RDONLY), "Could not open file for read: " << path);
}

void Write(int fd, unsigned long long offset, const unsigned char* data, unsigned int count)
{
    SeekTo(fd, offset, __func__);
    const auto [total, error] = TransferAll(
        count, [&](unsigned int done, unsigned int rest) { return write(fd, data + done, rest); });
    if (total < count || total == FailedTotal)
        KRT_RAISE_OS(error, "Could not write to file");
}

unsigned int Read(int fd, unsigned long long offset, unsigned char* data, unsigned int count)
{
    SeekTo(fd, offset, __func__);
    const auto [total, error] =
        TransferAll(count, [&](unsigned int done, unsigned int rest) { return read(fd, data + done, rest); });
    if (total == FailedTotal)
        KRT_RAISE_OS(error, "Could not read from file");
    return total;
}

void Close(int fd)
{
    if (const auto error = Perform([&] { return close(fd); }))
        KRT_RAISE_OS_ON(MessageType::FileClose, *error);
}

bool IsFollowableDirectoryFromKrtAttributes(const YPath& path, unsigned int attributes)
{
    if (attributes == Krt::File::AttributesUnknown || (attributes & Krt::File::AttributeDirectory) == 0)
        return false;
    if (!Volume::IsMountPoint(path))
        return true;
    try {
        if (Volume::DetermineDriveType(Volume::GetVolumeUniquePath(path)) == Volume::DRIVE_CLASS_FIXED)
            return true;
        return GetIncludedMountpoints().contains(path);
    } catch (const Krt::Exception::YError& error) {
        if (Krt::Profile::OpenSystem()->Get<bool>("configuration", "walkIntoUnknownMountPoints", false)) {
            KRT_LOG_FREE(MessageType::General, "Walking into unknown mountpoint: "
                                                   << path
                                                   << " due to [configuration] walkIntoUnknownMountPoints=1");
            return true;
        }
        KRT_RAISE(ErrorCode::InvalidArgument, "Error while determining if "
                                                  << path << " should be decended "
                                                  << "into.  Try setting [configuration] "
                                                     "walkIntoUnknownMountPoints=1  Error was: "
                                                  << error);
    }
}

} // namespace Backup::File
