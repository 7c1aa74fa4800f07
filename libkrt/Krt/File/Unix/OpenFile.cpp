#include "Krt/File/OpenFile.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Descriptor.h"
#include "Krt/Util/Retry.h"

#include <unistd.h>

namespace Krt::File {

using Util::RetryOnInterrupt;

struct stat Stat(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    struct stat status;
    if (RetryOnInterrupt([&] { return fstat(descriptor, &status); }) < 0)
        KRT_RAISE_OS("Failed to stat open file");
    return status;
}

void SetOwner(const Util::YUnxHandle& handle, unsigned int user, unsigned int group)
{
    const int descriptor = DescriptorOf(handle, __func__);
    if (RetryOnInterrupt([&] { return fchown(descriptor, user, group); }) < 0)
        KRT_RAISE_OS("Failed to set owner of open file to " << user << ":" << group);
}

void SetMode(const Util::YUnxHandle& handle, unsigned int mode)
{
    const int descriptor = DescriptorOf(handle, __func__);
    if (RetryOnInterrupt([&] { return fchmod(descriptor, static_cast<mode_t>(mode & 07777)); }) < 0)
        KRT_RAISE_OS("Failed to set mode of open file");
}

void SetTimes(const Util::YUnxHandle& handle, const timespec& access, const timespec& write)
{
    const int descriptor = DescriptorOf(handle, __func__);
    const timespec times[] = {access, write};
    if (RetryOnInterrupt([&] { return futimens(descriptor, times); }) < 0)
        KRT_RAISE_OS("Failed to set times of open file");
}

void SetSize(const Util::YUnxHandle& handle, unsigned long long size)
{
    const int descriptor = DescriptorOf(handle, __func__);
    if (RetryOnInterrupt([&] { return ftruncate(descriptor, static_cast<off_t>(size)); }) < 0)
        KRT_RAISE_OS("Failed to set size of open file to " << size);
}

} // namespace Krt::File
