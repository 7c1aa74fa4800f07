#include "agent/Cli/VolumeList.h"

#include "agent/Run/AnswerWithin.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Backup/File/Unix/File.h"
#include "Backup/Volume/Unix/Util.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/Volume/YVolume.h"

#include <string>
#include <unordered_map>

namespace Agent {

using Krt::File::YPath;
using Krt::Volume::MountEntry;

namespace {

struct Status
{
    std::optional<unsigned long long> freeSpace;
    bool isEntered = false;
};

Status StatusOf(const YPath& directory, bool asksSpace)
{
    const unsigned int attributes = Krt::File::GetAttributes(directory);
    Status status;
    if (asksSpace)
        status.freeSpace = Krt::Volume::YVolume(directory).GetVolumeFreeSpace();
    status.isEntered = Backup::File::IsFollowableDirectoryFromKrtAttributes(directory, attributes);
    return status;
}

void Ask(ListedVolume& volume, std::chrono::milliseconds patience)
{
    const YPath directory(volume.mount.directory);
    // An automounter's trigger has no space of its own, and a query would mount its file system.
    const bool asksSpace = !(volume.mount.type == "autofs");
    try {
        const auto status =
            AnswerWithin<Status>(patience, [directory, asksSpace] { return StatusOf(directory, asksSpace); });
        if (!status) {
            volume.failure = "The file system does not answer";
            return;
        }
        volume.freeSpace = status->freeSpace;
        volume.isEntered = status->isEntered;
    } catch (const Krt::Exception::YError& error) {
        volume.failure = ReasonOf(error);
    }
}

} // namespace

std::vector<ListedVolume> ListVolumes(std::chrono::milliseconds patience)
{
    const std::vector<MountEntry> mounts = Krt::Volume::ListMountEntries();
    KRT_RAISE_UNLESS(!mounts.empty(), Krt::ErrorCode::NotFound, "The table of mounts can't be read");
    std::unordered_map<std::string, const MountEntry*> uppermost;
    for (const MountEntry& mount : mounts)
        uppermost[mount.directory.Bytes()] = &mount;

    std::vector<ListedVolume> volumes;
    for (const MountEntry& mount : mounts) {
        ListedVolume& volume = volumes.emplace_back();
        volume.mount = mount;
        volume.driveClass = Backup::Volume::ClassifyFilesystemType(mount.type);
        volume.isHidden = uppermost[mount.directory.Bytes()] != &mount;
        if (!volume.isHidden)
            Ask(volume, patience);
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
    }
    return volumes;
}

} // namespace Agent
