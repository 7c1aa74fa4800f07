#include "Backup/Volume/Unix/Util.h"

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

using VolumeUtil = Testing::ProcMounted;

} // namespace

TEST_F(VolumeUtil, PathNameIsNearestDeviceBoundary)
{
    const Testing::TemporaryDirectory directory;
    std::filesystem::create_directory_symlink("/proc/self", directory / "link");
    const std::pair<std::string, std::string> cases[] = {
        {"/", "/"},
        {"/proc", "/proc"},
        {"/proc/self/fd", "/proc"},
        {"/proc/none/of/these", "/proc"},
        {"/no-such-directory/x", "/"},
        {"no-such-name", "/"},
        // The link is followed, so it is the boundary itself.
        {directory / "link", directory / "link"}};
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(GetVolumePathName(path.c_str()).Bytes(), expected) << path;
}

TEST_F(VolumeUtil, PathNameFailureNamesGivenPath)
{
    const Testing::TemporaryDirectory directory;
    const std::string below = directory.Write("file", "") + "/below/it";
    EXPECT_RAISES(GetVolumePathName(YPath()), ErrorCode::InvalidState, "GetVolumePathName",
                  "Cannot find volume path name for the empty string");
    EXPECT_RAISES_OS(GetVolumePathName(below.c_str()), MessageType::General, ENOTDIR, "GetVolumePathName",
                     "Failed to stat file: " + below);
    // A relative name that exists has no parent that could be asked.
    std::filesystem::current_path(directory.Path());
    EXPECT_RAISES_OS(GetVolumePathName("file"), MessageType::General, ENOENT, "GetVolumePathName",
                     "Failed to stat file: file");
    std::filesystem::current_path("/");
}

TEST_F(VolumeUtil, UnlistedVolumeIsUnknownAndWritable)
{
    const Testing::MountTable table("/dev/root / ext4 ro 0 0\n");
    EXPECT_EQ(DetermineDriveType("unlisted"), DRIVE_CLASS_UNKNOWN);
    EXPECT_EQ(ClassifyFilesystemType("EXT4"), DRIVE_CLASS_UNKNOWN);
    EXPECT_EQ(ClassifyFilesystemType("ext"), DRIVE_CLASS_UNKNOWN);
    EXPECT_EQ(DetermineDriveType("/special"), DRIVE_CLASS_SPECIAL);
    EXPECT_FALSE(IsReadOnly("/proc/self"));
    EXPECT_TRUE(IsReadOnly("/"));
}

TEST_F(VolumeUtil, MountPointIsRecognizedByDevice)
{
    const Testing::TemporaryDirectory directory;
    EXPECT_TRUE(IsMountPoint("/proc"));
    EXPECT_FALSE(IsMountPoint("/proc/self"));
    EXPECT_FALSE(IsMountPoint("/"));
    EXPECT_FALSE(IsMountPoint(directory.MakeDirectory("ordinary").c_str()));

    const Testing::LogCapture log({"General"});
    EXPECT_RAISES_OS(IsMountPoint("/no-such-file"), MessageType::General, ENOENT, "IsMountPoint", "");
    EXPECT_EQ(log.Texts(), std::vector<std::string>{"General: Failed to stat '/no-such-file' or parent"});
}
