#include "Krt/File/OpenFile.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Arguments.h"

#include <unistd.h>

namespace Krt::File {

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

Util::OsResult<std::string> ReadWholeFile(const Util::YUnxHandle& handle, std::size_t limit)
{
    const int descriptor = DescriptorOf(handle, __func__);
    struct stat status;
    if (const int error = Util::CallSystem([&] { return fstat(descriptor, &status); }).error)
        return {std::string(), error};
    // The size of other files than regular ones says nothing, and even theirs may change from now on.
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

} // namespace Krt::File
