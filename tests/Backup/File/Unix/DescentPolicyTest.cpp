#include "Backup/File/Unix/File.h"

#include "Backup/Volume/Unix/Util.h"

#include "testing/Configuration.h"
#include "testing/LogCapture.h"
#include "testing/MountTable.h"
#include "testing/Raises.h"

#include <fstream>
#include <tuple>

using Backup::File::IsFollowableDirectoryFromKrtAttributes;
using Backup::Volume::IsMountPoint;
using Krt::ErrorCode;
using Krt::MessageType;

namespace {

constexpr unsigned int Directory = 0x10;
const std::string Listed = "IncludedMountpoints=/dev/,,/mnt, /sys\n";

// The list of mount points is read once in a process, so all tests share one; other keys are read afresh.
class DescentPolicy : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* mount : {"/proc", "/dev", "/sys"}) {
            if (!IsMountPoint(mount))
                GTEST_SKIP() << mount << " is not mounted here";
        }
    }

    const Testing::TemporaryDirectory m_directory;
    const Testing::Configuration m_configuration{Listed};
};

} // namespace

TEST_F(DescentPolicy, OnlyDirectoriesAreFollowed)
{
    const std::string directory = m_directory.MakeDirectory("ordinary");
    // The configuration of an ordinary directory is never read, and that of a mount point would fail.
    Testing::Configuration::Use(m_directory.Path());
    EXPECT_TRUE(IsFollowableDirectoryFromKrtAttributes(directory.c_str(), Directory));
    EXPECT_FALSE(IsFollowableDirectoryFromKrtAttributes(directory.c_str(), 0xFFFFFFEF));
    EXPECT_FALSE(IsFollowableDirectoryFromKrtAttributes("/no-such-directory", 0xFFFFFFFF));
    EXPECT_FALSE(IsFollowableDirectoryFromKrtAttributes("/no-such-directory", 0));
    EXPECT_RAISES_OS(IsFollowableDirectoryFromKrtAttributes("/no-such-directory", Directory),
                     MessageType::General, ENOENT, "IsMountPoint", "");
}

TEST_F(DescentPolicy, MountPointIsFollowedByClassOrList)
{
    const std::tuple<const char*, const char*, const char*, bool> cases[] = {
        {"a fixed disk", "/proc", "hfs", true},
        {"a network share", "/proc", "nfs", false},
        {"a removable medium", "/proc", "iso9660", false},
        {"an unknown type", "/proc", "apfs", false},
        {"listed with a trailing slash", "/dev", "nfs", true},
        {"listed after a blank, which counts", "/sys", "sysfs", false}};
    // Has no effect where the classification doesn't fail.
    m_configuration.Set(Listed + "walkIntoUnknownMountPoints=true\n");
    for (const auto& [name, path, type, followed] : cases) {
        const Testing::MountTable table(std::string("source ") + path + " " + type + " rw 0 0\n");
        EXPECT_EQ(IsFollowableDirectoryFromKrtAttributes(path, Directory), followed) << name;
    }
}

TEST_F(DescentPolicy, UnclassifiedMountPointRaises)
{
    const Testing::MountTable table("");
    const auto error =
        Testing::CatchError([] { IsFollowableDirectoryFromKrtAttributes("/proc", Directory); });
    EXPECT_EQ(error.value().GetCode(), ErrorCode::InvalidArgument);
    EXPECT_EQ(error->GetFile().Bytes(), "Backup/File/Unix/File");
    const std::string text = error->GetMessage().Bytes();
    EXPECT_EQ(error->GetFunction().Bytes(), "IsFollowableDirectoryFromKrtAttributes");
    EXPECT_TRUE(text.starts_with("Error while determining if /proc should be decended into.  Try setting "
                                 "[configuration] walkIntoUnknownMountPoints=1  Error was: "))
        << text;
    EXPECT_NE(text.find("Failed to locate volume guid for path /proc"), std::string::npos) << text;

    // Compilers differ in which line of a statement they report.
    std::ifstream source(SOURCE_DIRECTORY "/" + error->GetFile().Bytes() + ".cpp");
    std::string statement;
    std::string line;
    for (unsigned int i = 1; std::getline(source, line); ++i) {
        if (i + 5 > error->GetLine() && i < error->GetLine() + 5)
            statement += line;
    }
    EXPECT_NE(statement.find("should be decended"), std::string::npos) << statement;

    m_configuration.Set(Listed + "walkIntoUnknownMountPoints=1\n");
    const Testing::LogCapture log({"General"});
    EXPECT_TRUE(IsFollowableDirectoryFromKrtAttributes("/proc", Directory));
    EXPECT_EQ(log.Texts(), std::vector<std::string>{"General: Walking into unknown mountpoint: /proc due to "
                                                    "[configuration] walkIntoUnknownMountPoints=1"});
}
