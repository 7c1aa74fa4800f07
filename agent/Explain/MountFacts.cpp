#include "agent/Explain/MountFacts.h"

#include "Backup/Volume/Unix/Util.h"

#include "Krt/Exception/YError.h"
#include "Krt/Volume/MountTable.h"

#include <algorithm>

namespace Agent {

using Krt::File::YPath;
using Krt::Volume::MountEntry;

const char* DriveClassWord(unsigned int driveClass)
{
    switch (driveClass) {
    case Backup::Volume::DRIVE_CLASS_REMOVABLE:
        return "removable";
    case Backup::Volume::DRIVE_CLASS_FIXED:
        return "fixed";
    case Backup::Volume::DRIVE_CLASS_NETWORK:
        return "network";
    case Backup::Volume::DRIVE_CLASS_SPECIAL:
        return "special";
    case Backup::Volume::DRIVE_CLASS_ROOTFS:
        return "rootfs";
    default:
        return "unknown";
    }
}

std::optional<MountFacts> FindMountFacts(const YPath& mountPoint)
{
    try {
        const YPath source = Backup::Volume::GetVolumeUniquePath(mountPoint);
        const std::vector<MountEntry> mounts = Krt::Volume::ListMountEntries();
        const auto mount = std::find_if(mounts.begin(), mounts.end(),
                                        [&](const MountEntry& each) { return each.source == source; });
        return MountFacts{DriveClassWord(Backup::Volume::DetermineDriveType(source)),
                          mount == mounts.end() ? "" : mount->type.Bytes(), source.Bytes()};
    } catch (const Krt::Exception::YError&) {
        return std::nullopt;
    }
}

} // namespace Agent
