#include "Krt/File/YEntry.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Arguments.h"
#include "Krt/File/YDirectory.h"

#include <fcntl.h>
#include <unistd.h>

namespace Krt::File {

struct YEntry::Location
{
    int directory;
    const char* name;
};

YEntry::Location YEntry::Locate(const char* function) const
{
    if (m_directory == nullptr)
        return {AT_FDCWD, m_name->CStr()};
    return {m_directory->GetHandle().Get(), CheckEntryName(*m_name, function)};
}

void YEntry::SetOwner(unsigned int user, unsigned int group) const
{
    if (m_handle != nullptr) {
        const int descriptor = DescriptorOf(*m_handle, __func__);
        KRT_SYSCALL(fchown(descriptor, user, group),
                    "Failed to set owner of open file to " << user << ":" << group);
    } else {
        const Location at = Locate(__func__);
        KRT_SYSCALL(fchownat(at.directory, at.name, user, group, AT_SYMLINK_NOFOLLOW),
                    "Failed to set owner of: " << at.name << " to " << user << ":" << group);
    }
}

void YEntry::SetMode(unsigned int mode) const
{
    const auto bits = static_cast<mode_t>(mode & 07777);
    if (m_handle != nullptr) {
        const int descriptor = DescriptorOf(*m_handle, __func__);
        KRT_SYSCALL(fchmod(descriptor, bits), "Failed to set mode of open file");
    } else {
        const Location at = Locate(__func__);
        KRT_SYSCALL(fchmodat(at.directory, at.name, bits, AT_SYMLINK_NOFOLLOW),
                    "Failed to set mode of: " << at.name);
    }
}

void YEntry::SetTimes(const timespec& access, const timespec& write) const
{
    const timespec times[] = {access, write};
    if (m_handle != nullptr) {
        const int descriptor = DescriptorOf(*m_handle, __func__);
        KRT_SYSCALL(futimens(descriptor, times), "Failed to set times of open file");
    } else {
        const Location at = Locate(__func__);
        KRT_SYSCALL(utimensat(at.directory, at.name, times, AT_SYMLINK_NOFOLLOW),
                    "Failed to set times of: " << at.name);
    }
}

} // namespace Krt::File
