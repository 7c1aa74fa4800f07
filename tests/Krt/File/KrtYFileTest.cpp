// The text file object, and the directory in which temporary ones are made.
#include "Krt/File/YFile.h"

#include "Krt/File/PathMap.h"

#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

using namespace Krt;
using File::YFile;
using Testing::ReadFile;

TEST(KrtYFileTest, MakesAPrivateFileOfAllThatIsWritten)
{
    const Testing::TemporaryDirectory directory;
    const std::string path = directory / "new";
    const mode_t mask = umask(0);
    const int standardInput = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    YFile file(path.c_str(), 0x42);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    if (standardInput >= 0)
        dup2(standardInput, STDIN_FILENO);
    close(standardInput);
    umask(mask);
    file.Write("first\n");
    file.Write(YString(std::string_view("a\0b", 3)));
    file.Close();
    EXPECT_EQ(ReadFile(path), std::string("first\na\0b", 9));
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    file.Close();
    EXPECT_RAISES(file.Write("more"), ErrorCode::InvalidState, "Write", "File is not open: " + path);
}

TEST(KrtYFileTest, TakesNothingThatIsThere)
{
    const Testing::TemporaryDirectory directory;
    const std::string kept = directory.Write("kept", "kept");
    ASSERT_EQ(symlink((directory / "elsewhere").c_str(), (directory / "link").c_str()), 0);
    const struct
    {
        const char* name;
        int error;
    } rows[] = {{"kept", EEXIST}, {"link", EEXIST}, {"missing/new", ENOENT}};
    for (const auto& row : rows) {
        const std::string path = directory / row.name;
        EXPECT_RAISES_OS(YFile(path.c_str(), 0x42), MessageType::General, row.error, "Open",
                         "Failed to open file: " + path);
    }
    EXPECT_EQ(ReadFile(kept), "kept");
    EXPECT_NE(access((directory / "elsewhere").c_str(), F_OK), 0);
    const std::string path = directory / "other";
    EXPECT_RAISES(YFile(path.c_str(), 0x41), ErrorCode::InvalidArgument, "YFile",
                  "Invalid open flags 65 for file: " + path);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

// A limit on the size of files cuts the text short, as a full disk does.
TEST(KrtYFileTest, TextCutShortRaisesWithThePath)
{
    const Testing::TemporaryDirectory directory;
    const std::string path = directory / "new";
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small{8, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto error = Testing::CatchError([&] { YFile(path.c_str(), 0x42).Write("more than eight"); });
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, handler);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->GetOsError(), EFBIG);
    EXPECT_EQ(error->GetMessage().Bytes(), "Failed to write file: " + path);
}

TEST(PathMapTest, TemporaryFiles)
{
    const char* const set = std::getenv("TMPDIR");
    const std::string before = set != nullptr ? set : "";
    const struct
    {
        const char* named;
        const char* given;
    } rows[] = {{"/var/tmp/", "/var/tmp"}, {"", "/tmp"}, {"relative", "/tmp"}, {"-rf", "/tmp"}};
    for (const auto& row : rows) {
        setenv("TMPDIR", row.named, 1);
        EXPECT_EQ(File::GetPathMap(5).Bytes(), row.given) << row.named;
    }
    unsetenv("TMPDIR");
    EXPECT_EQ(File::GetPathMap(5).Bytes(), "/tmp");
    if (set != nullptr)
        setenv("TMPDIR", before.c_str(), 1);
    EXPECT_RAISES(File::GetPathMap(6), ErrorCode::InvalidArgument, "GetPathMap",
                  "No well-known directory has the number 6");
}
