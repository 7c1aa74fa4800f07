#include "Krt/File/File.h"

#include "Krt/Environment/Process.h"
#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Arguments.h"
#include "Krt/Util/YUnxHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace Krt::File {

namespace {

static_assert(FileTypeMask == S_IFMT && FileTypeDirectory == S_IFDIR && FileTypeRegular == S_IFREG &&
              FileTypeSymbolicLink == S_IFLNK);

const char* Native(const YPath& path)
{
    return path.AsUnixPath(false).CStr();
}

Util::OsResult<int> StatEntry(const YPath& path, struct stat& status)
{
    return Util::CallSystem([&] { return lstat(Native(path), &status); });
}

unsigned int AttributesOf(const struct stat& status)
{
    return S_ISDIR(status.st_mode) ? AttributeDirectory : 0;
}

bool IsDirectory(const std::string& path)
{
    struct stat status;
    return Util::CallSystem([&] { return stat(path.c_str(), &status); }) && S_ISDIR(status.st_mode);
}

// It is not a failure if another process creates the directory at the same moment.
void MakeDirectoryUnlessThere(const std::string& path)
{
    const auto made = Util::CallSystem([&] { return mkdir(path.c_str(), 0777); });
    if (!made && (made.error != EEXIST || !IsDirectory(path)))
        KRT_RAISE_OS_AS("CreatePath", MessageType::General, made.error,
                        "Failed to create directory: " << path.c_str());
}

int OpenFlags(unsigned int flags)
{
    switch (flags) {
    case OpenForReading:
        return O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    case OpenNewForWriting:
        return O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    default:
        KRT_RAISE_AS("Open", MessageType::General, ErrorCode::InvalidArgument,
                     "Invalid open flags " << flags);
    }
}

} // namespace

unsigned int GetAttributes(const YPath& path)
{
    struct stat status;
    KRT_OS_VALUE(StatEntry(path, status), "Failed to get attributes of: " << path);
    return AttributesOf(status);
}

unsigned int GetAttributesNoException(const YPath& path)
{
    struct stat status;
    return StatEntry(path, status) ? AttributesOf(status) : AttributesUnknown;
}

unsigned long long GetSize(const YPath& path)
{
    struct stat status;
    KRT_OS_VALUE(StatEntry(path, status), "Failed to get size of: " << path);
    return static_cast<unsigned long long>(status.st_size);
}

bool DoesFileExist(const YPath& path)
{
    struct stat status;
    return StatEntry(path, status).error == 0;
}

bool IsSymbolicLink(const YPath& path)
{
    struct stat status;
    KRT_OS_VALUE(StatEntry(path, status), "Failed to get type of: " << path);
    return S_ISLNK(status.st_mode);
}

YPath NormalizePathCase(const YPath& path)
{
    return path;
}

void CreatePath(const YPath& path, bool includeLast)
{
    const std::string& text = path.AsUnixPath(false).Bytes();
    const auto parentOf = [&](std::size_t length) {
        const std::size_t separator = length == 0 ? std::string::npos : text.rfind('/', length - 1);
        return separator == std::string::npos ? 0 : separator;
    };
    const std::size_t end = includeLast ? text.size() : parentOf(text.size());

    // Search upwards for an existing directory, since usually the nearest parent exists; then create
    // downwards.
    std::size_t made = end;
    while (made > 0 && !IsDirectory(text.substr(0, made)))
        made = parentOf(made);
    while (made < end) {
        const std::size_t next = text.find('/', made + 1);
        made = next < end ? next : end;
        MakeDirectoryUnlessThere(text.substr(0, made));
    }
}

void DeleteFile(const YPath& path)
{
    const auto removed = Util::CallSystem([&] { return unlink(Native(path)); });
    if (!removed && removed.error != ENOENT)
        KRT_RAISE_OS(removed.error, "Failed to delete file: " << path);
}

Util::YUnxHandle Open(const YPath& path, unsigned int flags)
{
    return KRT_OS_VALUE(Util::OpenHandle(Native(path), OpenFlags(flags), S_IRUSR | S_IWUSR),
                        "Failed to open file: " << path);
}

unsigned long Read(const Util::YUnxHandle& handle, unsigned long long offset, unsigned long count,
                   void* buffer)
{
    const int descriptor = DescriptorOf(handle, __func__);
    unsigned long total = 0;
    while (total < count) {
        const ssize_t size =
            KRT_SYSCALL(pread(descriptor, static_cast<char*>(buffer) + total, count - total,
                              static_cast<off_t>(offset + total)),
                        "Failed to read " << count - total << " bytes at offset " << offset + total);
        if (size == 0)
            break;
        total += static_cast<unsigned long>(size);
    }
    return total;
}

unsigned long Write(const Util::YUnxHandle& handle, unsigned long long offset, unsigned long count,
                    const void* buffer)
{
    const int descriptor = DescriptorOf(handle, __func__);
    unsigned long total = 0;
    while (total < count) {
        const auto size = Util::CallSystem([&] {
            return pwrite(descriptor, static_cast<const char*>(buffer) + total, count - total,
                          static_cast<off_t>(offset + total));
        });
        // A call that writes nothing and reports no error would keep the loop running for ever.
        if (size.value <= 0)
            KRT_RAISE_OS(size ? EIO : size.error,
                         "Failed to write " << count - total << " bytes at offset " << offset + total);
        total += static_cast<unsigned long>(size.value);
    }
    return total;
}

struct stat Stat(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    struct stat status;
    KRT_SYSCALL(fstat(descriptor, &status), "Failed to stat open file");
    return status;
}

void SetSize(const Util::YUnxHandle& handle, unsigned long long size)
{
    const int descriptor = DescriptorOf(handle, __func__);
    KRT_SYSCALL(ftruncate(descriptor, static_cast<off_t>(size)),
                "Failed to set size of open file to " << size);
}

void Sync(const Util::YUnxHandle& handle)
{
    DescriptorOf(handle, __func__);
    if (const int error = TrySync(handle))
        KRT_RAISE_OS(error, "Failed to sync file");
}

Util::OsResult<std::string> ReadWholeFile(const Util::YUnxHandle& handle, std::size_t limit)
{
    const int descriptor = DescriptorOf(handle, __func__);
    struct stat status;
    if (const int error = Util::CallSystem([&] { return fstat(descriptor, &status); }).error)
        return {std::string(), error};
    // Only the size of a regular file is meaningful, and even that may change from now on.
    const auto expected = S_ISREG(status.st_mode) ? static_cast<std::size_t>(status.st_size) : 0;
    if (expected > limit)
        return {std::string(), EFBIG};
    std::string bytes;
    bytes.reserve(expected);
    char block[16384];
    for (;;) {
        const auto size = Util::CallSystem([&] { return read(descriptor, block, sizeof block); });
        if (size.value <= 0)
            return {std::move(bytes), size.error};
        if (static_cast<std::size_t>(size.value) > limit - bytes.size())
            return {std::move(bytes), EFBIG};
        bytes.append(block, static_cast<std::size_t>(size.value));
    }
}

YPath GetPathMap(unsigned int index)
{
    KRT_RAISE_UNLESS(index == TemporaryFiles, ErrorCode::InvalidArgument,
                     "No well-known directory has the number " << index);
    const char* const named = Environment::IsPrivilegeRaised() ? nullptr : std::getenv("TMPDIR");
    return named != nullptr && *named == '/' ? named : "/tmp";
}

} // namespace Krt::File
