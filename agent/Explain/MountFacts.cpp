#include "agent/Explain/MountFacts.h"

#include "agent/Run/AnswerWithin.h"

#include "Backup/Volume/Unix/Util.h"

#include "Krt/Exception/YError.h"
#include "Krt/Volume/FileSystemSpace.h"
#include "Krt/Volume/MountTable.h"

#include <algorithm>

namespace Agent {

using Krt::File::YPath;
using Krt::Volume::MountEntry;

namespace {

// The time to wait for a file server.
constexpr std::chrono::seconds Patience{3};

std::optional<MountUsage> UsageOf(const std::string& mountPoint)
{
    const auto read = Krt::Volume::ReadFileSystemSpace(mountPoint.c_str());
    const Krt::Volume::FileSystemSpace& space = read.value;
    if (!read || space.blocks < space.freeBlocks)
        return std::nullopt;
    MountUsage usage;
    usage.bytes = (space.blocks - space.freeBlocks) * space.blockSize;
    if (space.inodes != 0 && space.inodes >= space.freeInodes)
        usage.inodes = space.inodes - space.freeInodes;
    return usage;
}

} // namespace

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

std::optional<MountUsage> FindMountUsage(const YPath& mountPoint, const MountFacts& facts)
{
    if (facts.type == "autofs") // a query would mount its file system
        return std::nullopt;
    const auto answer = AnswerWithin<std::optional<MountUsage>>(
        Patience, [path = mountPoint.Bytes()] { return UsageOf(path); });
    return answer.value_or(std::nullopt);
}

} // namespace Agent
