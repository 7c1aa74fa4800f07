#include "Krt/File/File.h"

#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace {

using namespace Krt::File;
using Krt::ErrorCode;
using Krt::MessageType;
using Krt::Util::YUnxHandle;
using Testing::OsErrorOf;
namespace fs = std::filesystem;

class KrtFile : public testing::Test
{
protected:
    YPath At(const std::string& name) const { return YPath((directory / name).c_str()); }

    const Testing::TemporaryDirectory directory;
};

TEST(YUnxHandle, AssignmentClosesOwnedDescriptor)
{
    const auto isOpen = [](int descriptor) {
        return fcntl(descriptor, F_GETFD) >= 0;
    };
    const int first = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int second = open("/dev/null", O_RDONLY | O_CLOEXEC);
    {
        YUnxHandle handle(first, true);
        handle = YUnxHandle(second, false);
        EXPECT_FALSE(isOpen(first));
        YUnxHandle moved(std::move(handle));
        EXPECT_TRUE(handle.IsEmpty());
    }
    EXPECT_TRUE(isOpen(second)) << "not owned, not closed";
    close(second);
}

TEST(YUnxHandle, EmptyHandleClosesNothing)
{
    const int flags = fcntl(STDIN_FILENO, F_GETFD);
    YUnxHandle empty;
    EXPECT_EQ(Krt::Util::TryCloseWritten(empty), 0);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), flags);
}

TEST_F(KrtFile, OpenRefusesLinksAndSpecialFiles)
{
    directory.Write("file", "x");
    fs::create_symlink("file", directory / "link");
    fs::create_symlink("nowhere", directory / "dangling");
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    const struct
    {
        const char* name;
        unsigned int flags;
        int error;
    } rows[] = {
        {"file", OpenForReading, 0},         {"fifo", OpenForReading, 0},
        {"link", OpenForReading, ELOOP},     {"missing", OpenForReading, ENOENT},
        {"new", OpenNewForWriting, 0},       {"file", OpenNewForWriting, EEXIST},
        {"link", OpenNewForWriting, EEXIST}, {"dangling", OpenNewForWriting, EEXIST},
    };
    for (const auto& row : rows)
        EXPECT_EQ(OsErrorOf([&] { Open(At(row.name), row.flags); }), row.error) << row.name;
    EXPECT_EQ(Stat(Open(At("new"), OpenForReading)).st_mode, mode_t{S_IFREG | 0600});
    EXPECT_RAISES(Open(At("file"), 0), ErrorCode::InvalidArgument, "Open", "Invalid open flags 0");
}

TEST_F(KrtFile, ReadsAndWritesAtOffsets)
{
    const YPath path = At("file");
    const YUnxHandle written = Open(path, OpenNewForWriting);
    EXPECT_EQ(Write(written, 4, 3, "def"), 3u);
    EXPECT_EQ(Write(written, 0, 4, "abc-"), 4u);
    const YUnxHandle handle = Open(path, OpenForReading);
    char buffer[16] = {};
    EXPECT_EQ(Read(handle, 2, sizeof(buffer), buffer), 5u) << "ends with the file";
    EXPECT_STREQ(buffer, "c-def");
    EXPECT_EQ(Read(handle, 7, 1, buffer), 0u);
    EXPECT_EQ(OsErrorOf([&] { Write(handle, 0, 1, "x"); }), EBADF);
    EXPECT_EQ(OsErrorOf([&] { Read(handle, ~0ULL, 1, buffer); }), EINVAL) << "beyond what a file can hold";
    EXPECT_RAISES(Read(YUnxHandle(), 0, 1, buffer), ErrorCode::InvalidState, "Read", "File is not open");
    SetSize(written, 2);
    EXPECT_EQ(GetSize(path), 2u);
}

TEST_F(KrtFile, ReadsWholeFileUpToLimit)
{
    const std::string path = directory.Write("file", std::string(20000, 'x'));
    const struct
    {
        std::string path;
        std::size_t limit;
        std::size_t size;
        int error;
    } rows[] = {
        {path, 20000, 20000, 0},          {path, 19999, 0, EFBIG},
        {"/dev/zero", 1 << 20, 0, EFBIG}, {"/proc/self/status", 1, 0, EFBIG},
        {"/dev/null", 0, 0, 0},           {directory.Path(), 1, 0, EISDIR},
    };
    for (const auto& row : rows) {
        const auto read = ReadWholeFile(Open(row.path.c_str(), OpenForReading), row.limit);
        EXPECT_EQ(read.error, row.error) << row.path;
        EXPECT_TRUE(!read || read.value == std::string(row.size, 'x')) << row.path;
    }
}

TEST_F(KrtFile, CreatePathMakesMissingParents)
{
    directory.Write("file", "x");
    directory.MakeDirectory("real");
    fs::create_directory_symlink("real", directory / "link");
    fs::create_symlink("nowhere", directory / "dangling");
    const struct
    {
        const char* name;
        bool includeLast;
        const char* made; // nothing is made beyond it
        int error;
    } rows[] = {
        {"a/b/c/d", false, "a/b/c", 0},    {"e/f", true, "e/f", 0},
        {"e/f", true, "e/f", 0},           {"link/g/h", false, "real/g", 0},
        {"link", true, "real", 0},         {"top", false, "", 0},
        {"file", true, "file", EEXIST},    {"file/x/y", false, "file", EEXIST},
        {"dangling/x", false, "", EEXIST},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(OsErrorOf([&] { CreatePath(At(row.name), row.includeLast); }), row.error) << row.name;
        EXPECT_TRUE(fs::exists(directory / row.made)) << row.name;
    }
    EXPECT_FALSE(fs::exists(directory / "a/b/c/d"));
    EXPECT_FALSE(fs::exists(directory / "top"));
}

TEST_F(KrtFile, LinkIsDescribedAndDeletedItself)
{
    directory.MakeDirectory("real");
    fs::create_directory_symlink("real", directory / "link");
    EXPECT_EQ(GetAttributes(At("real")), AttributeDirectory);
    EXPECT_EQ(GetAttributes(At("link")), 0u);
    EXPECT_TRUE(IsSymbolicLink(At("link")));
    EXPECT_EQ(GetAttributesNoException(At("missing")), AttributesUnknown);
    EXPECT_RAISES_OS(GetSize(At("missing")), MessageType::General, ENOENT, "GetSize",
                     "Failed to get size of: " + directory / "missing");
    DeleteFile(At("link"));
    DeleteFile(At("link"));
    EXPECT_FALSE(DoesFileExist(At("link")));
    EXPECT_NE(OsErrorOf([&] { DeleteFile(At("real")); }), 0);
    EXPECT_TRUE(DoesFileExist(At("real")));
}

} // namespace
