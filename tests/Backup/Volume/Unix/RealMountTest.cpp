// What the library says of mounts that really stand, in a mount namespace of the test's own. What a walk does
// there is told by its own tests.
#include "Backup/Volume/Unix/Util.h"
#include "Backup/Volume/Unix/YVolume.h"
#include "Backup/Volume/Unix/YVolumeManager.h"

#include "testing/MountNamespace.h"
#include "testing/Raises.h"

#include <sys/mount.h>

using namespace Backup::Volume;
using Krt::ErrorCode;
using Krt::File::YPath;
using Testing::MountKind;
using Testing::MountNamespace;
using Pairs = std::vector<std::pair<YPath, YPath>>;

namespace {

YPath Path(const std::string& text)
{
    return YPath(text.c_str());
}

class RealMount : public testing::TestWithParam<MountKind>
{};

TEST_P(RealMount, IsKnownForWhatItIs)
{
    const MountKind& kind = GetParam();
    MountNamespace::Run([&](const MountNamespace& space) {
        const YPath target = Path(space / kind.directory);
        const std::string source = kind.mount(space, target.Bytes());
        if (kind.readOnly)
            space.MakeReadOnly(target.Bytes());
        const YPath unique = Path(source);
        const YPath below = target.Append(Krt::YString("missing/too"));
        EXPECT_TRUE(IsMountPoint(target));
        EXPECT_EQ(GetVolumePathName(target), target);
        EXPECT_EQ(GetVolumePathName(below), target);
        EXPECT_EQ(GetVolumeUniquePath(below).Bytes(), source);
        EXPECT_EQ(DetermineDriveType(unique), kind.driveClass);
        EXPECT_EQ(IsReadOnly(below), kind.readOnly);
        EXPECT_EQ(DetermineVolumeMountPaths(unique, below), Pairs(kind.entries, {target, "base"}));

        const YVolume volume(below);
        EXPECT_EQ(volume.GetGuidPath(), unique);
        EXPECT_EQ(volume.GetPrimaryMountPath(), target);

        YVolumeManager manager;
        EXPECT_EQ(manager.GetVolumeList(0xFFFFFFFF, false).count(target),
                  kind.driveClass == DRIVE_CLASS_FIXED ? 1u : 0u);
        EXPECT_EQ(*manager.VolumeOfFilename(below), volume);
        EXPECT_EQ(manager.GetUniquePathFromMountPoint(target), unique);
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, RealMount, testing::ValuesIn(Testing::MountKinds()),
                         [](const auto& kind) { return kind.param.label; });

TEST(RealMounts, ABindOnTheSameDeviceIsNoBoundary)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string target = space / "bound";
        space.Bind(space.MakeDirectory("ordinary"), target);
        space.MakeReadOnly(target);
        EXPECT_FALSE(IsMountPoint(Path(target)));
        EXPECT_EQ(GetVolumePathName(Path(target)), Path(space / ""));
        EXPECT_FALSE(IsReadOnly(Path(target))) << "that of the volume counts, not of the bind";
        EXPECT_EQ(YVolume(Path(target)).GetMountPathCount(), 2u);
    });
}

TEST(RealMounts, AMountWithoutASourceIsListedYetHasNoUniquePath)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string target = space / "a #mount";
        space.Mount("", target, "tmpfs", MS_RDONLY);
        EXPECT_TRUE(IsReadOnly(Path(target)));
        EXPECT_RAISES(GetVolumeUniquePath(Path(target)), ErrorCode::NotFound, "GetVolumeUniquePath",
                      "Failed to locate volume guid for path " + target);
    });
}

TEST(RealMounts, ASubvolumeIsABoundaryThatNoTableLists)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string disk = space / "disk", subvolume = disk + "/sub", inside = subvolume + "/inside";
        const std::string device = space.MountImage("btrfs", disk);
        MountNamespace::MakeSubvolume(disk, "sub");
        MountNamespace::Write(inside, "x");
        ASSERT_EQ(mount("", disk.c_str(), "", MS_REMOUNT | MS_RDONLY, ""), 0);

        EXPECT_TRUE(IsMountPoint(Path(subvolume)));
        EXPECT_EQ(GetVolumePathName(Path(inside)).Bytes(), subvolume);
        EXPECT_RAISES(YVolume(Path(inside)), ErrorCode::NotFound, "GetVolumeUniquePath",
                      "Failed to locate volume guid for path " + inside);
        EXPECT_FALSE(IsReadOnly(Path(inside))) << "without an entry nothing is known of the flag";

        YVolumeManager manager;
        EXPECT_EQ(manager.GetVolumeByUniquePath(Path(disk))->GetGuidPath().Bytes(), device);
        EXPECT_EQ(manager.GetVolumeList(0xFFFFFFFF, false).count(Path(subvolume)), 0u);

        // With a mount of its own it is a volume like any other, at its place or elsewhere.
        space.Bind(subvolume, subvolume);
        space.Mount(device, space / "elsewhere", "btrfs", MS_RDONLY, "subvol=sub");
        for (const std::string& place : {subvolume, space / "elsewhere"}) {
            EXPECT_EQ(YVolume(Path(place + "/inside")).GetGuidPath().Bytes(), device) << place;
            EXPECT_TRUE(IsReadOnly(Path(place))) << place;
        }
    });
}

} // namespace
