// The operations of YDirectory that change entries.
#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Beneath.h"
#include "Krt/File/Unix/EntryName.h"
#include "Krt/File/YDirectory.h"

#include <fcntl.h>
#include <unistd.h>

namespace Krt::File {

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

void YDirectory::SetOwner(const YString& name, unsigned int user, unsigned int group) const
{
    const char* entry = CheckEntryName(name, __func__);
    KRT_SYSCALL(fchownat(m_handle.Get(), entry, user, group, AT_SYMLINK_NOFOLLOW),
                "Failed to set owner of: " << name << " to " << user << ":" << group);
}

void YDirectory::SetMode(const YString& name, unsigned int mode) const
{
    const char* entry = CheckEntryName(name, __func__);
    const auto bits = static_cast<mode_t>(mode & 07777);
    KRT_SYSCALL(fchmodat(m_handle.Get(), entry, bits, AT_SYMLINK_NOFOLLOW),
                "Failed to set mode of: " << name);
}

void YDirectory::SetMode(unsigned int mode) const
{
    KRT_OS_VALUE(SetModeOfDirectory(m_handle.Get(), static_cast<mode_t>(mode & 07777)),
                 "Failed to set mode of directory");
}

void YDirectory::SetTimes(const YString& name, const timespec& access, const timespec& write) const
{
    const char* entry = CheckEntryName(name, __func__);
    const timespec times[] = {access, write};
    KRT_SYSCALL(utimensat(m_handle.Get(), entry, times, AT_SYMLINK_NOFOLLOW),
                "Failed to set times of: " << name);
}

} // namespace Krt::File
