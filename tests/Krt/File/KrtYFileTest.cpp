// The text file object, and the directory in which temporary ones are made.
#include "Krt/File/YFile.h"

#include "Krt/File/File.h"

#include "testing/FileSizeLimit.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

using namespace Krt;
using File::YFile;
using Testing::ReadFile;

class KrtYFileTest : public testing::Test
{
protected:
    const Testing::TemporaryDirectory directory;
    const std::string path = directory / "new";
};

TEST_F(KrtYFileTest, CreatedFileIsPrivateAndComplete)
{
    const mode_t mask = umask(0);
    YFile file(path.c_str(), 0x42);
    umask(mask);
    file.Write("first\n");
    file.Write(YString(std::string_view("a\0b", 3)));
    file.Close();
    EXPECT_EQ(ReadFile(path), std::string("first\na\0b", 9));
    EXPECT_EQ(Testing::StatusOf(path).st_mode & 07777U, 0600U);
    file.Close();
    EXPECT_RAISES(file.Write("more"), ErrorCode::InvalidState, "Write", "File is not open: " + path);
}

TEST_F(KrtYFileTest, ExistingEntryIsRefused)
{
    const std::string kept = directory.Write("kept", "kept");
    ASSERT_EQ(symlink((directory / "elsewhere").c_str(), (directory / "link").c_str()), 0);
    for (const std::string& there : {kept, directory / "link"})
        EXPECT_RAISES_OS(YFile(there.c_str(), 0x42), MessageType::General, EEXIST, "Open",
                         "Failed to open file: " + there);
    EXPECT_EQ(ReadFile(kept), "kept");
    EXPECT_NE(access((directory / "elsewhere").c_str(), F_OK), 0);
    EXPECT_RAISES(YFile(path.c_str(), 0x41), ErrorCode::InvalidArgument, "YFile",
                  "Invalid open flags 65 for file: " + path);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

// A limit on the size of files cuts the text short, as a full disk does.
TEST_F(KrtYFileTest, ShortWriteRaisesPath)
{
    const Testing::FileSizeLimit limit(8);
    EXPECT_RAISES_OS(YFile(path.c_str(), 0x42).Write("more than eight"), MessageType::General, EFBIG, "Write",
                     "Failed to write file: " + path);
}

TEST(PathMap, TemporaryFilesFollowEnvironment)
{
    const char* const set = std::getenv("TMPDIR");
    const std::string before = set != nullptr ? set : "";
    for (const auto& [named, given] :
         {std::pair("/var/tmp/", "/var/tmp"), {"", "/tmp"}, {"relative", "/tmp"}}) {
        setenv("TMPDIR", named, 1);
        EXPECT_EQ(File::GetPathMap(5).Bytes(), given) << named;
    }
    unsetenv("TMPDIR");
    EXPECT_EQ(File::GetPathMap(5).Bytes(), "/tmp");
    if (set != nullptr)
        setenv("TMPDIR", before.c_str(), 1);
    EXPECT_RAISES(File::GetPathMap(6), ErrorCode::InvalidArgument, "GetPathMap",
                  "No well-known directory has the number 6");
}
