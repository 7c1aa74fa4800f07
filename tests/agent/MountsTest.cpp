// Real mounts, in a mount namespace of the test's own: what the library reports of each, whether a backup
// enters it, and what the backup reports. docs/rules.md describes the latter to users.
#include "Backup/Volume/Unix/Util.h"
#include "Backup/Volume/Unix/YVolume.h"
#include "Backup/Volume/Unix/YVolumeManager.h"

#include "testing/Configuration.h"
#include "testing/MountNamespace.h"
#include "testing/Raises.h"
#include "testing/RepositoryFixture.h"
#include "testing/SelectionText.h"

#include "agent/Run/Text.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <tuple>

using namespace Backup::Volume;
using Krt::ErrorCode;
using Krt::File::YPath;
using Testing::Holds;
using Testing::MountKind;
using Testing::MountNamespace;
using Testing::ProgramResult;
using List = std::vector<std::string>;
using Pairs = std::vector<std::pair<YPath, YPath>>;

namespace {

YPath Path(const std::string& text)
{
    return YPath(text.c_str());
}

std::string Shown(const std::string& path)
{
    return Agent::Printable(std::string_view(path));
}

// Each run has the configuration that is given.
class Walk
{
public:
    explicit Walk(const MountNamespace& space)
    {
        Testing::CreateRepository(space / "repo", "secret");
        setenv("KBAGENT_REPOSITORY", (space / "repo").c_str(), 1);
        setenv("KBAGENT_PASSWORD", "secret", 1);
    }

    ProgramResult Run(int exitCode, const std::string& configuration, List arguments)
    {
        m_configuration.Set(configuration);
        arguments.insert(arguments.begin(), "backup");
        const ProgramResult result = Testing::RunProgram(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.errors;
        const ProgramResult list = Testing::RunProgram({"ls", "--no-lock", "latest"});
        EXPECT_EQ(list.exitCode, 0) << list.errors;
        m_list = list.output;
        return result;
    }
    bool Stored(const std::string& path) const { return Holds(m_list, "\n" + Shown(path) + "\n"); }

private:
    const Testing::Configuration m_configuration;
    std::string m_list;
};

void CheckLibrary(const MountKind& kind, const YPath& target, const std::string& source)
{
    const YPath unique = Path(source), below = target.Append(Krt::YString("missing/too"));
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
}

// Only fixed disks, and what is listed, are entered.
void CheckBackup(const MountNamespace& space, const MountKind& kind, const std::string& tree,
                 const std::string& target)
{
    const std::string inside = target + "/inside";
    Walk walk(space);
    const bool fixed = kind.driveClass == DRIVE_CLASS_FIXED;
    const ProgramResult below = walk.Run(0, "", {tree});
    EXPECT_TRUE(walk.Stored(target) && walk.Stored(tree + "/z"))
        << "entered or not, its own record is stored";
    EXPECT_EQ(walk.Stored(inside), fixed);
    EXPECT_EQ(Holds(below.errors, "kbagent: mount point not entered: " + Shown(target) + "\n"), !fixed);

    const ProgramResult named = walk.Run(0, "", {target});
    EXPECT_TRUE(walk.Stored(inside));
    EXPECT_EQ(Holds(named.errors, Shown(target) + " is a mount point that a walk would not enter"), !fixed);

    if (target.find_first_of(",\n") != std::string::npos)
        return; // can't be listed
    const ProgramResult listed = walk.Run(0, "IncludedMountpoints=/elsewhere," + target, {tree});
    EXPECT_TRUE(walk.Stored(inside));
    EXPECT_FALSE(Holds(listed.errors, "not entered"));
}

class Mounts : public testing::TestWithParam<MountKind>
{};

TEST_P(Mounts, AreKnownAndEnteredByTheirKind)
{
    const MountKind& kind = GetParam();
    MountNamespace::Run([&](const MountNamespace& space) {
        const std::string tree = space.MakeDirectory("tree"), target = tree + "/" + kind.directory;
        const std::string source = kind.mount(space, target);
        MountNamespace::Write(target + "/inside", "x");
        MountNamespace::Write(tree + "/z", "y");
        if (kind.readOnly)
            space.MakeReadOnly(target);
        CheckLibrary(kind, Path(target), source);
        CheckBackup(space, kind, tree, target);
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, Mounts, testing::ValuesIn(Testing::MountKinds()),
                         [](const auto& kind) { return kind.param.label; });

TEST(OddMounts, AMountWithoutASourceIsListedYetHasNoUniquePath)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string target = space / "a #mount";
        space.Mount("", target, "tmpfs", MS_RDONLY);
        EXPECT_TRUE(IsReadOnly(Path(target)));
        EXPECT_RAISES(GetVolumeUniquePath(Path(target)), ErrorCode::NotFound, "GetVolumeUniquePath",
                      "Failed to locate volume guid for path " + target);
    });
}

TEST(OddMounts, RulesBelowAMountThatIsNotEnteredNeedAStartOfTheirOwn)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string tree = space.MakeDirectory("tree"), deep = tree + "/mount/deep",
                          file = deep + "/file";
        space.Mount("memory", tree + "/mount", "tmpfs");
        MountNamespace::Write(file, "x");
        const auto writeJob = [&](const std::string& rules) {
            MountNamespace::Write(space / "job", Testing::JobText(rules));
        };
        Walk walk(space);
        writeJob("include " + deep + " recursive any explicit");
        walk.Run(0, "", {"--job", space / "job"});
        EXPECT_TRUE(walk.Stored(file)) << "mounts above a start are not checked";
        writeJob("include " + tree + " any; include " + deep + " recursive any explicit");
        EXPECT_TRUE(Holds(walk.Run(0, "", {"--job", space / "job"}).errors, "mount point not entered: "));
        EXPECT_FALSE(walk.Stored(file)) << "the rule above is the only start";
        walk.Run(0, "", {"--job", space / "job", deep});
        EXPECT_TRUE(walk.Stored(file));
        // Excluded mounts are not checked and so not reported. A bind mount on the same device is not a mount
        // point.
        MountNamespace::Write(tree + "/real/file", "x");
        space.Bind(tree + "/real", tree + "/bound");
        writeJob("include " + tree + " recursive any; exclude " + tree + " exact=mount");
        EXPECT_FALSE(Holds(walk.Run(0, "", {"--job", space / "job"}).errors, "not entered"));
        EXPECT_FALSE(walk.Stored(tree + "/mount"));
        EXPECT_TRUE(walk.Stored(tree + "/real/file") && walk.Stored(tree + "/bound/file"));
        const YPath bound = Path(tree + "/bound");
        space.MakeReadOnly(bound.Bytes());
        EXPECT_FALSE(IsMountPoint(bound));
        EXPECT_EQ(GetVolumePathName(bound), Path(space / ""));
        EXPECT_FALSE(IsReadOnly(bound)) << "the volume counts, not the bind";
        EXPECT_EQ(YVolume(bound).GetMountPathCount(), 2u);
    });
}

TEST(OddMounts, ASubvolumeIsABoundaryThatNoTableLists)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string tree = space.MakeDirectory("tree"), disk = tree + "/disk",
                          subvolume = disk + "/sub", inside = subvolume + "/inside";
        const std::string device = space.MountImage("btrfs", disk);
        MountNamespace::MakeSubvolume(disk, "sub");
        MountNamespace::Write(inside, "x");
        MountNamespace::Write(disk + "/z", "y");
        MountNamespace::Write(space / "job", Testing::JobText("include " + tree + " recursive any; silent " +
                                                              disk + " exact=sub"));
        const std::tuple<const char*, std::string, List, int, bool, bool> cases[] = {
            {"as it is", "", {tree}, 3, false, false},
            {"listed", "IncludedMountpoints=" + subvolume, {tree}, 3, false, false},
            {"with the key", "walkIntoUnknownMountPoints=1", {tree}, 0, true, true},
            {"named", "", {subvolume}, 3, true, true},
            {"excluded", "", {"--job", space / "job"}, 0, false, false},
        };
        Walk walk(space);
        for (const auto& [name, configuration, arguments, exitCode, record, content] : cases) {
            const ProgramResult result = walk.Run(exitCode, configuration, arguments);
            EXPECT_EQ(walk.Stored(subvolume), record) << name;
            EXPECT_EQ(walk.Stored(inside), content) << name;
            EXPECT_EQ(Holds(result.errors, "walkIntoUnknownMountPoints=1"), exitCode == 3) << name;
            EXPECT_EQ(walk.Stored(disk + "/z"), arguments != List{subvolume}) << name;
        }
        ASSERT_EQ(mount("", disk.c_str(), "", MS_REMOUNT | MS_RDONLY, ""), 0);
        EXPECT_TRUE(IsMountPoint(Path(subvolume)));
        EXPECT_EQ(GetVolumePathName(Path(inside)).Bytes(), subvolume);
        EXPECT_RAISES(YVolume(Path(inside)), ErrorCode::NotFound, "GetVolumeUniquePath",
                      "Failed to locate volume guid for path " + inside);
        EXPECT_FALSE(IsReadOnly(Path(inside))) << "the flag is not known without an entry";
        YVolumeManager manager;
        EXPECT_EQ(manager.GetVolumeByUniquePath(Path(disk))->GetGuidPath().Bytes(), device);
        EXPECT_EQ(manager.GetVolumeList(0xFFFFFFFF, false).count(Path(subvolume)), 0u);

        // With a mount of its own it is a volume like any other, wherever it is mounted.
        space.Bind(subvolume, subvolume);
        walk.Run(0, "", {tree});
        EXPECT_TRUE(walk.Stored(subvolume) && walk.Stored(inside));
        space.Mount(device, space / "elsewhere", "btrfs", MS_RDONLY, "subvol=sub");
        for (const std::string& place : {subvolume, space / "elsewhere"}) {
            EXPECT_EQ(YVolume(Path(place + "/inside")).GetGuidPath().Bytes(), device) << place;
            EXPECT_TRUE(IsReadOnly(Path(place))) << place;
        }
    });
}

} // namespace
