#include "Backup/Volume/Unix/Util.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Util/Retry.h"
#include "Krt/Volume/MountTable.h"

#include <algorithm>
#include <sys/stat.h>

namespace Backup::Volume {

using Krt::File::YPath;
using Krt::Util::RetryOnInterrupt;
using Krt::Volume::ListMountEntries;
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

// The first entry whose field holds the text, or null.
const MountEntry* FindFirst(const std::vector<MountEntry>& entries, YString MountEntry::*field,
                            const YString& text)
{
    const auto found =
        std::ranges::find_if(entries, [&](const MountEntry& entry) { return entry.*field == text; });
    return found == entries.end() ? nullptr : &*found;
}

std::vector<MountEntry> ListAndLogMountEntries()
{
    std::vector<MountEntry> entries = ListMountEntries();
    KRT_LOG_FREE(MessageType::Volume, entries.size() << " total entries found");
    return entries;
}

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

YPath GetVolumePathName(const YPath& path)
{
    KRT_LOG_FREE(MessageType::Volume, "Determining volume path name for path " << path);
    if (path == "/")
        return path;
    KRT_RAISE_UNLESS(!path.IsEmpty(), ErrorCode::InvalidState,
                     "Cannot find volume path name for the empty string");
    YPath current = path;
    YPath result;
    do {
        YPath parent = current.RemoveFile();
        struct stat own;
        // An interrupted call is not repeated here: it fails like any other.
        if (stat(current.CStr(), &own) == 0) {
            struct stat above;
            if (RetryOnInterrupt([&] { return stat(parent.CStr(), &above); }) != 0)
                KRT_RAISE_OS("Failed to stat file: " << path);
            if (own.st_dev != above.st_dev) {
                result = current;
                break;
            }
        } else if (errno != ENOENT) {
            KRT_RAISE_OS("Failed to stat file: " << path);
        }
        current = std::move(parent);
    } while (!current.IsEmpty() && !(current == "/"));
    if (result.IsEmpty())
        result = YPath("/");
    KRT_LOG_FREE(MessageType::Volume, "Determined volume path name for path " << path << " is " << result);
    return result;
}

YPath GetVolumeUniquePath(const YPath& path)
{
    KRT_LOG_FREE(MessageType::Volume, "Getting volume guid for path " << path);
    const YPath mountPath = GetVolumePathName(path);
    const std::vector<MountEntry> entries = ListAndLogMountEntries();
    YPath result;
    if (const MountEntry* entry = FindFirst(entries, &MountEntry::directory, mountPath)) {
        KRT_LOG_FREE(MessageType::Volume,
                     "Found guid match for path " << mountPath << " at " << entry->source);
        result = YPath(entry->source);
    }
    KRT_RAISE_UNLESS(!result.IsEmpty(), ErrorCode::NotFound,
                     "Failed to locate volume guid for path " << path);
    KRT_LOG_FREE(MessageType::Volume, "Returning found guid " << result);
    return result;
}

unsigned int DetermineDriveType(const YPath& uniquePath)
{
    if (uniquePath == "/special")
        return DRIVE_CLASS_SPECIAL;
    const std::vector<MountEntry> entries = ListMountEntries();
    const MountEntry* entry = FindFirst(entries, &MountEntry::source, uniquePath);
    return ClassifyFilesystemType(entry != nullptr ? entry->type : YString());
}

std::vector<std::pair<YPath, YPath>> DetermineVolumeMountPaths(const YPath& uniquePath, const YPath& path)
{
    const YPath mountPath = GetVolumePathName(path);
    std::vector<std::pair<YPath, YPath>> mountPaths;
    for (const MountEntry& entry : ListMountEntries()) {
        // Each mount of the device stands for itself, with the same pair.
        if (entry.source == uniquePath)
            mountPaths.emplace_back(mountPath, GetVolumeUniquePath(mountPath.RemoveFile()));
    }
    return mountPaths;
}

bool IsMountPoint(const YPath& path)
{
    try {
        struct stat own;
        if (RetryOnInterrupt([&] { return stat(path.CStr(), &own); }) != 0)
            KRT_RAISE_OS();
        const YPath parent = path.RemoveFile();
        struct stat above;
        if (RetryOnInterrupt([&] { return stat(parent.CStr(), &above); }) != 0)
            KRT_RAISE_OS();
        return own.st_dev != above.st_dev;
    } catch (const Krt::Exception::YError&) {
        KRT_LOG_FREE(MessageType::General, "Failed to stat '" << path << "' or parent");
        throw;
    }
}

bool IsReadOnly(const YPath& path)
{
    KRT_LOG_FREE(MessageType::Volume, "Checking if path " << path << " is readonly");
    const YPath mountPath = GetVolumePathName(path);
    const std::vector<MountEntry> entries = ListAndLogMountEntries();
    const MountEntry* entry = FindFirst(entries, &MountEntry::directory, mountPath);
    return entry != nullptr && entry->readOnly;
}

} // namespace Backup::Volume
