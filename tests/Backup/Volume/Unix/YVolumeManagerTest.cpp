#include "Backup/Volume/Unix/YVolumeManager.h"

#include "Backup/Core/YGlobal.h"

#include "testing/LogCapture.h"
#include "testing/MountTable.h"
#include "testing/ProcMounted.h"
#include "testing/Raises.h"
#include "testing/SystemCalls.h"

#include <algorithm>
#include <optional>
#include <set>
#include <thread>

using namespace Backup::Volume;
using Krt::ErrorCode;

namespace {

constexpr unsigned int All = 0xFFFFFFFF;
const char* const Refreshing = "YVolumeManager: Refreshing volume list";

const char* const Table = "/dev/root / ext4 rw 0 0\n"
                          "server:/export /mnt/n nfs rw 0 0\n"
                          "/dev/sr0 /mnt/cd iso9660 ro 0 0\n"
                          "tmpfs /tmp/x tmpfs rw 0 0\n"
                          "/dev/a /mnt/apfs apfs rw 0 0\n"
                          "/dev/b /mnt/a\\040b\\011c\\134d hfs ro 0 0\n"
                          "/dev/b /mnt/again hfs ro 0 0\n"
                          "/dev/c /mnt/again btrfs ro 0 0\n"
                          "proc /proc nfs rw 0 0\n";
using Directories = std::set<std::string>;
const Directories Fixed{"/", "/mnt/a b\tc\\d", "/mnt/again"};

class VolumeManager : public Testing::ProcMounted
{
protected:
    // What the manager lists.
    Directories List(unsigned int typeMask = All, bool accessibleOnly = false)
    {
        Directories directories;
        for (const auto& [path, volume] : manager.GetVolumeList(typeMask, accessibleOnly)) {
            EXPECT_EQ(path, volume->GetPath());
            directories.insert(path.Bytes());
        }
        return directories;
    }
    void UseTable(const char* text)
    {
        table.reset();
        table.emplace(text);
    }

    YVolumeManager manager;
    std::optional<Testing::MountTable> table{Table};
};

} // namespace

TEST_F(VolumeManager, MaskChoosesVolumes)
{
    EXPECT_EQ(List(), Fixed);
    EXPECT_EQ(List(All, true), Fixed);
    EXPECT_EQ(List(0, false), Directories{});
    EXPECT_EQ(List(0x80000000, true), Fixed) << "one bit of the type";
    EXPECT_EQ(List(0x0000270E, false), Directories{}) << "every bit that the type lacks";
}

TEST_F(VolumeManager, ListIsBuiltOnceUntilInvalidated)
{
    const Testing::LogCapture log({"Volume"});
    const auto refreshed = [&] {
        const std::vector<std::string> lines = log.Texts();
        return std::count(lines.begin(), lines.end(), Refreshing);
    };
    const YVolumeManager::VolumeMap before = manager.GetVolumeList(All, false);
    UseTable("/dev/root / ext4 rw 0 0\n/dev/new /mnt/new xfs rw 0 0\n");
    EXPECT_EQ(List(), Fixed) << "a later mount is not seen";
    EXPECT_EQ(refreshed(), 1);

    manager.InvalidateVolumeList();
    EXPECT_EQ(refreshed(), 1);
    manager.InvalidateVolumeList();
    EXPECT_EQ(refreshed(), 2) << "an empty list is built before it is emptied";
    EXPECT_EQ(List(), (Directories{"/", "/mnt/new"}));
    EXPECT_EQ(refreshed(), 3);
    EXPECT_EQ(before.at("/mnt/again")->GetPath().Bytes(), "/mnt/again") << "the caller's share lives on";

    UseTable("tmpfs / tmpfs rw 0 0\n");
    manager.RebuildVolumeList();
    EXPECT_EQ(refreshed(), 3);
    EXPECT_EQ(List(), Directories{});
    EXPECT_EQ(List(), Directories{});
    EXPECT_EQ(refreshed(), 5) << "nothing to list is never fresh";
}

TEST_F(VolumeManager, VolumesOutliveGlobalObject)
{
    const auto volumes = Backup::GetGlobal()->GetVolumeManager().GetVolumeList(All, false);
    EXPECT_EQ(Backup::GetGlobal()->GetVolumeManager().GetVolumeByUniquePath("/"), volumes.at("/"));
    Backup::DestroyGlobal();
    EXPECT_TRUE(volumes.at("/mnt/again")->GetPath() == "/mnt/again" && !volumes.at("/")->IsReadOnly());
    EXPECT_NE(Backup::GetGlobal()->GetVolumeManager().GetVolumeByUniquePath("/"), volumes.at("/"));
    Backup::DestroyGlobal();
}

TEST_F(VolumeManager, LookupIsByMountDirectory)
{
    EXPECT_EQ(manager.GetVolumeByUniquePath("/mnt/again/"), manager.GetVolumeList(All, false)["/mnt/again"]);
    for (const char* key : {"/dev/root", "/mnt/n", "/mnt"})
        EXPECT_RAISES(manager.GetVolumeByUniquePath(key), ErrorCode::InvalidState, "GetVolumeByUniquePath",
                      std::string("Volume not found by unique path: ") + key);
}

TEST_F(VolumeManager, LookupByPathBypassesList)
{
    const Testing::LogCapture log({"Volume"});
    const boost::shared_ptr<YVolume> volume = manager.VolumeOfFilename("/proc/self");
    EXPECT_EQ(volume->GetDriveType(), DRIVE_CLASS_NETWORK);
    EXPECT_EQ(volume->GetPath().Bytes(), "/proc/self");
    EXPECT_NE(manager.VolumeOfFilename("/proc/self"), volume);
    EXPECT_EQ(manager.GetUniquePathFromMountPoint("/proc/self").Bytes(), "proc");
    const std::vector<std::string> lines = log.Texts();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), Refreshing), 0);
}

TEST_F(VolumeManager, UndescribableMountEndsRebuild)
{
    const char* const text = "Failed to locate volume guid for path /proc/gone";
    // The entry's mount is gone, and what is found in its place is not listed.
    UseTable("/dev/b /proc/gone hfs rw 0 0\n/dev/root / ext4 rw 0 0\n");
    EXPECT_RAISES(manager.InvalidateVolumeList(), ErrorCode::NotFound, "GetVolumeUniquePath", text);
    EXPECT_RAISES(List(), ErrorCode::NotFound, "GetVolumeUniquePath", text);

    UseTable("/dev/root / ext4 rw 0 0\n/dev/b /proc/gone hfs rw 0 0\n/dev/c /mnt/c xfs rw 0 0\n");
    EXPECT_RAISES(List(), ErrorCode::NotFound, "GetVolumeUniquePath", text);
    EXPECT_EQ(List(), Directories{"/"}) << "what came before it counts as fresh";
    manager.InvalidateVolumeList();
    UseTable(Table);
    EXPECT_EQ(List(), Fixed);
}

TEST_F(VolumeManager, RebuildMakesFewCallsPerMount)
{
    constexpr unsigned int Binds = 50;
    const auto callsWith = [&](unsigned int binds) {
        std::string text = "/dev/root / ext4 rw 0 0\n";
        for (unsigned int i = 0; i < binds; ++i)
            text += "/dev/root /no-such-directory/pods/" + std::to_string(i) + "/data ext4 rw 0 0\n";
        UseTable(text.c_str());
        return Testing::CountSystemCalls([&] { manager.RebuildVolumeList(); });
    };
    const auto few = callsWith(0), many = callsWith(Binds);
    if (!few || !many)
        GTEST_SKIP() << "no process can be traced here";
    EXPECT_LE(*many - *few, 5 * Binds);
    EXPECT_EQ(List().size(), 1 + Binds);
    EXPECT_EQ(manager.GetVolumeByUniquePath("/no-such-directory/pods/7/data")->GetMountPathCount(),
              1 + Binds);
}

TEST_F(VolumeManager, ConcurrentInvalidationsShowWholeList)
{
    std::thread invalidator([&] {
        for (int i = 0; i < 100; ++i)
            manager.InvalidateVolumeList();
    });
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(List(), Fixed);
    invalidator.join();
}
