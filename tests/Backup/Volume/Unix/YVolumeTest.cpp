#include "Backup/Volume/Unix/YVolume.h"

#include "testing/LogCapture.h"
#include "testing/MountTable.h"
#include "testing/ProcMounted.h"
#include "testing/Raises.h"

#include <filesystem>

using namespace Backup::Volume;
using Krt::ErrorCode;
using Krt::MessageType;
using Krt::File::YPath;

namespace {

using Volume = Testing::ProcMounted;

const char* const Table = "/dev/disk\\040one\\134 / ext4 rw 0 0\n"
                          "/dev/b /proc hfs ro 0 0\n"
                          "/dev/c /proc nfs rw 0 0\n"
                          "/dev/b /mnt/else\\040where nfs rw 0 0\n";

} // namespace

TEST_F(Volume, AnyPathDescribesItsVolume)
{
    const Testing::MountTable table(Table);
    const struct
    {
        const char* path;
        const char* uniquePath;
        const char* mountPath;
        unsigned int mountPaths;
        unsigned int driveType;
        bool readOnly;
    } cases[] = {
        {"/", "/dev/disk one\\", "/", 1, DRIVE_CLASS_FIXED, false},
        // The second mount of the device gives a second equal pair; its type and the entry laid over the
        // first are not seen.
        {"/proc/self/fd", "/dev/b", "/proc", 2, DRIVE_CLASS_FIXED, true},
        // The mount no longer exists, so the path is on the volume of its ancestors.
        {"/mnt/else where", "/dev/disk one\\", "/", 1, DRIVE_CLASS_FIXED, false},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.path);
        const YVolume volume{YPath(row.path)};
        EXPECT_EQ(volume.GetGuidPath().Bytes(), row.uniquePath);
        EXPECT_EQ(YPath(volume).Bytes(), row.uniquePath);
        EXPECT_EQ(volume.GetPath().Bytes(), row.path);
        ASSERT_EQ(volume.GetMountPathCount(), row.mountPaths);
        EXPECT_EQ(volume.GetMountPath(row.mountPaths - 1).Bytes(), row.mountPath);
        EXPECT_RAISES(volume.GetMountPath(row.mountPaths), ErrorCode::NotSupported, "GetMountPath",
                      "Not implemented");
        EXPECT_EQ(volume.GetPrimaryMountPath().Bytes(), row.mountPath);
        EXPECT_EQ(volume.GetDriveType(), row.driveType);
        EXPECT_EQ(volume.IsReadOnly(), row.readOnly);
        EXPECT_EQ(volume.GetFsType().Bytes(), "");
    }
}

TEST_F(Volume, UninitializedVolumeRaises)
{
    const Testing::MountTable table(Table);
    YVolume initialized{YPath("/proc")};
    initialized.Initialize();
    for (const YVolume& volume : {YVolume(), initialized}) {
        const char* const text = "Volume not initialized";
        EXPECT_RAISES(volume.GetFsType(), ErrorCode::InvalidState, "GetFsType", text);
        EXPECT_RAISES(volume.GetDriveType(), ErrorCode::InvalidState, "GetDriveType", text);
        EXPECT_RAISES(volume.GetGuidPath(), ErrorCode::InvalidState, "GetGuidPath", text);
        EXPECT_RAISES(volume.IsReadOnly(), ErrorCode::InvalidState, "IsReadOnly", "");
        EXPECT_RAISES(YPath(volume).IsEmpty(), ErrorCode::InvalidState, "operator YPath", "");
        EXPECT_RAISES_OS(volume.GetVolumeFreeSpace(), MessageType::General, ENOENT, "GetVolumeFreeSpace",
                         "Failed to get the free space of: ");
        EXPECT_EQ(volume.GetMountPathCount(), 0U);
        EXPECT_EQ(volume.GetPrimaryMountPath().Bytes(), "");
    }
}

TEST_F(Volume, EqualityIsByUniquePath)
{
    const Testing::MountTable table(Table);
    const YVolume b{YPath("/proc")}, deep{YPath("/proc/self/fd")}, one{YPath("/")};
    EXPECT_TRUE(b == deep && !(b != deep) && !(b < deep) && !(deep < b));
    EXPECT_TRUE(b != one && b < one && !(one < b));
    EXPECT_TRUE(YVolume() == YVolume() && YVolume() < b && !(b < YVolume()));

    YVolume copy = deep;
    EXPECT_EQ(copy.GetPath(), deep.GetPath());
    EXPECT_EQ(copy.GetMountPathCount(), 2U);
    copy = static_cast<const YVolume&>(copy);
    EXPECT_EQ(copy.GetGuidPath().Bytes(), "/dev/b");
    copy = YVolume();
    EXPECT_RAISES(copy.GetGuidPath(), ErrorCode::InvalidState, "GetGuidPath", "Volume not initialized");
}

TEST(VolumePrimaryMountPath, FirstOfShallowestIsChosen)
{
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{}, ""}, {{"/a/b", "/c"}, "/c"}, {{"/b", "/c"}, "/b"}, {{"/a/b", "/x/y", "/"}, "/"}};
    for (const auto& [mountPaths, expected] : cases) {
        YVolume::_tagVOL_INFO info;
        for (const char* mountPath : mountPaths)
            info.mountPaths.push_back({mountPath, "/dev/x", 1});
        EXPECT_EQ(info.GetPrimaryMountPath().Bytes(), expected);
    }
}

TEST_F(Volume, StepsAreLogged)
{
    const Testing::MountTable table(Table);
    const Testing::LogCapture log({"Volume"});
    const YVolume volume{YPath("/proc/self")};
    EXPECT_EQ(log.Text(), R"(YVolume: Initializing volume with path /proc/self
Volume: Getting volume guid for path /proc/self
Volume: Determining volume path name for path /proc/self
Volume: Determined volume path name for path /proc/self is /proc
Volume: 4 total entries found
Volume: Found guid match for path /proc at /dev/b
Volume: Returning found guid /dev/b
YVolume: Got volume uniquePath /dev/b
Volume: Determining volume path name for path /proc/self
Volume: Determined volume path name for path /proc/self is /proc
Volume: Getting volume guid for path /
Volume: Determining volume path name for path /
Volume: 4 total entries found
Volume: Found guid match for path / at /dev/disk one\\
Volume: Returning found guid /dev/disk one\\
Volume: Getting volume guid for path /
Volume: Determining volume path name for path /
Volume: 4 total entries found
Volume: Found guid match for path / at /dev/disk one\\
Volume: Returning found guid /dev/disk one\\
YVolume:  Determined mount path /proc->/dev/disk one\\
YVolume:  Determined mount path /proc->/dev/disk one\\
Volume: Checking if path /proc/self is readonly
Volume: Determining volume path name for path /proc/self
Volume: Determined volume path name for path /proc/self is /proc
Volume: 4 total entries found
Volume: Determining volume path name for path /proc/self
Volume: Determined volume path name for path /proc/self is /proc
YVolume: With volume mount path: /proc
)");
}

TEST_F(Volume, FailedInitializeLeavesUninitialized)
{
    const Testing::MountTable table("/dev/root / ext4 rw 0 0\n");
    const Testing::LogCapture log({"General"});
    YVolume volume{YPath("/")};
    EXPECT_RAISES(volume.Initialize("/proc/self"), ErrorCode::NotFound, "GetVolumeUniquePath",
                  "Failed to locate volume guid for path /proc/self");
    EXPECT_EQ(log.Texts(),
              std::vector<std::string>{
                  "YVolume: Failed to load volume info /proc/self Failed to locate volume guid for path "
                  "/proc/self (General, NotFound 235, GetVolumeUniquePath)"});
    EXPECT_RAISES(volume.GetGuidPath(), ErrorCode::InvalidState, "GetGuidPath", "Volume not initialized");
    EXPECT_EQ(volume.GetPath().Bytes(), "/proc/self");
}

TEST(VolumeFreeSpace, ResultIsInBytes)
{
    const Testing::MountTable table("/dev/root / ext4 rw 0 0\n");
    const YVolume volume{YPath("/")};
    const double available = static_cast<double>(std::filesystem::space("/").available);
    // Others may be writing meanwhile; a count of blocks would be off by hundreds.
    EXPECT_NEAR(static_cast<double>(volume.GetVolumeFreeSpace()), available, available / 2 + 1);
}
