#include "Backup/Volume/Unix/Util.h"

#include "Backup/Volume/Unix/Discovery.h"
#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"

#include <sys/stat.h>

namespace Backup::Volume {

using Krt::File::YPath;
using Krt::Volume::MountEntry;

namespace {

constexpr const char* RootFsFileSystems[] = {"rootfs", nullptr};
constexpr const char* RemovableFileSystems[] = {"iso9660", nullptr};
constexpr const char* NetworkFileSystems[] = {"autofs", "befs",  "cifs",  "coda",    "mvfs",  "nfs",
                                              "nfs4",   "novfs", "ncpfs", "openafs", "smbfs", nullptr};
constexpr const char* SpecialFileSystems[] = {"devfs",
                                              "devpts",
                                              "procfs",
                                              "sysfs",
                                              "selinuxfs",
                                              "tmpfs",
                                              "udev",
                                              "usbfs",
                                              "binfmt_misc",
                                              "debugfs",
                                              "fuse.gvfs-fuse-daemon",
                                              "none",
                                              "securityfs",
                                              nullptr};
constexpr const char* FixedFileSystems[] = {"btrfs",    "ext2", "ext3", "ext4", "jfs", "ntfs",
                                            "reiserfs", "vfat", "xfs",  "zfs",  "hfs", nullptr};

constexpr std::pair<const char* const*, DriveClass> Classes[] = {
    {RootFsFileSystems, DRIVE_CLASS_ROOTFS},
    {RemovableFileSystems, DRIVE_CLASS_REMOVABLE},
    {NetworkFileSystems, DRIVE_CLASS_NETWORK},
    {SpecialFileSystems, DRIVE_CLASS_SPECIAL},
    {FixedFileSystems, DRIVE_CLASS_FIXED}};

} // namespace

unsigned int ClassifyFilesystemType(const YString& type)
{
    for (const auto& [names, driveClass] : Classes) {
        for (const char* const* name = names; *name != nullptr; ++name) {
            if (type == *name)
                return driveClass;
        }
    }
    return DRIVE_CLASS_UNKNOWN;
}

const Discovery::Table& Discovery::GetTable()
{
    if (!m_table) {
        Table& table = m_table.emplace();
        table.entries = Krt::Volume::ListMountEntries();
        for (const MountEntry& entry : table.entries) {
            table.byDirectory.emplace(entry.directory.Bytes(), &entry);
            ++table.bySource.emplace(entry.source.Bytes(), Source{&entry, 0}).first->second.count;
        }
    }
    return *m_table;
}

const MountEntry* Discovery::FindMountedAt(const YPath& mountPath)
{
    const Table& table = GetTable();
    KRT_LOG_FREE(MessageType::Volume, table.entries.size() << " total entries found");
    const auto found = table.byDirectory.find(mountPath.Bytes());
    return found == table.byDirectory.end() ? nullptr : found->second;
}

Discovery::Source Discovery::FindSource(const YPath& uniquePath)
{
    const Table& table = GetTable();
    const auto found = table.bySource.find(uniquePath.Bytes());
    return found == table.bySource.end() ? Source{nullptr, 0} : found->second;
}

YPath Discovery::GetVolumePathName(const YPath& path)
{
    KRT_LOG_FREE(MessageType::Volume, "Determining volume path name for path " << path);
    if (path == "/")
        return path;
    KRT_RAISE_UNLESS(!path.IsEmpty(), ErrorCode::InvalidState,
                     "Cannot find volume path name for the empty string");
    YPath current = path;
    YPath result;
    std::vector<YPath> climbed;
    do {
        if (const auto known = m_mountPaths.find(current); known != m_mountPaths.end()) {
            result = known->second;
            break;
        }
        YPath parent = current.RemoveFile();
        struct stat own;
        // An interrupted call is not repeated here: it fails like any other.
        if (stat(current.CStr(), &own) == 0) {
            struct stat above;
            KRT_SYSCALL(stat(parent.CStr(), &above), "Failed to stat file: " << path);
            if (own.st_dev != above.st_dev) {
                result = current;
                break;
            }
        } else if (const int error = errno; error != ENOENT) {
            KRT_RAISE_OS(error, "Failed to stat file: " << path);
        }
        climbed.push_back(std::move(current));
        current = std::move(parent);
    } while (!current.IsEmpty() && !(current == "/"));
    if (result.IsEmpty())
        result = YPath("/");
    m_mountPaths.emplace(result, result);
    for (const YPath& below : climbed)
        m_mountPaths.emplace(below, result);
    KRT_LOG_FREE(MessageType::Volume, "Determined volume path name for path " << path << " is " << result);
    return result;
}

YPath Discovery::GetVolumeUniquePath(const YPath& path)
{
    KRT_LOG_FREE(MessageType::Volume, "Getting volume guid for path " << path);
    const YPath mountPath = GetVolumePathName(path);
    YPath result;
    if (const MountEntry* entry = FindMountedAt(mountPath)) {
        KRT_LOG_FREE(MessageType::Volume,
                     "Found guid match for path " << mountPath << " at " << entry->source);
        result = YPath(entry->source);
    }
    KRT_RAISE_UNLESS(!result.IsEmpty(), ErrorCode::NotFound,
                     "Failed to locate volume guid for path " << path);
    KRT_LOG_FREE(MessageType::Volume, "Returning found guid " << result);
    return result;
}

unsigned int Discovery::DetermineDriveType(const YPath& uniquePath)
{
    if (uniquePath == "/special")
        return DRIVE_CLASS_SPECIAL;
    const Source source = FindSource(uniquePath);
    return ClassifyFilesystemType(source.count != 0 ? source.first->type : YString());
}

MountPath Discovery::DetermineMountPath(const YPath& uniquePath, const YPath& path)
{
    const YPath mountPath = GetVolumePathName(path);
    MountPath result{mountPath, YPath(), FindSource(uniquePath).count};
    if (result.count == 0)
        return result;
    const YPath parent = mountPath.RemoveFile();
    result.holder = GetVolumeUniquePath(parent);
    // Each further mount of the device has the same result, and its look-up is logged.
    for (unsigned int i = 1; i < result.count && Krt::Log::IsLogged(MessageType::Volume); ++i)
        GetVolumeUniquePath(parent);
    return result;
}

bool Discovery::IsReadOnly(const YPath& path)
{
    KRT_LOG_FREE(MessageType::Volume, "Checking if path " << path << " is readonly");
    const MountEntry* entry = FindMountedAt(GetVolumePathName(path));
    return entry != nullptr && entry->readOnly;
}

YPath GetVolumePathName(const YPath& path)
{
    return Discovery().GetVolumePathName(path);
}

YPath GetVolumeUniquePath(const YPath& path)
{
    return Discovery().GetVolumeUniquePath(path);
}

unsigned int DetermineDriveType(const YPath& uniquePath)
{
    return Discovery().DetermineDriveType(uniquePath);
}

std::vector<std::pair<YPath, YPath>> DetermineVolumeMountPaths(const YPath& uniquePath, const YPath& path)
{
    const MountPath mount = Discovery().DetermineMountPath(uniquePath, path);
    return std::vector(mount.count, std::pair(mount.path, mount.holder));
}

bool IsReadOnly(const YPath& path)
{
    return Discovery().IsReadOnly(path);
}

bool IsMountPoint(const YPath& path)
{
    try {
        struct stat own;
        KRT_SYSCALL(stat(path.CStr(), &own));
        const YPath parent = path.RemoveFile();
        struct stat above;
        KRT_SYSCALL(stat(parent.CStr(), &above));
        return own.st_dev != above.st_dev;
    } catch (const Krt::Exception::YError&) {
        KRT_LOG_FREE(MessageType::General, "Failed to stat '" << path << "' or parent");
        throw;
    }
}

} // namespace Backup::Volume
