#include "Backup/File/Unix/YFile.h"

#include "Krt/File/YDirectory.h"

#include "testing/Configuration.h"
#include "testing/LogCapture.h"
#include "testing/Printed.h"
#include "testing/Raises.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Backup::File::YFile;
using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::File::YPath;
namespace fs = std::filesystem;

constexpr auto NoOptions = static_cast<YFile::OPTIONS>(0);

class YFileTest : public testing::Test
{
protected:
    YPath At(const std::string& name) const { return YPath((m_directory / name).c_str()); }
    struct stat StatusOf(const std::string& name) const { return Testing::StatusOf(m_directory / name); }

    Testing::TemporaryDirectory m_directory;
};

TEST_F(YFileTest, RegularFileIsReadForward)
{
    m_directory.Write("file", "abcdefgh");
    for (const auto mode : {YFile::OPEN_MODE_READ, YFile::OPEN_MODE_READ_ALTERNATE}) {
        const struct stat before = StatusOf("file");
        YFile file(mode, At("file"), YFile::OPT_NONE);
        EXPECT_EQ(file.GetInode(), before.st_ino);
        EXPECT_EQ(file.GetSize(), 8u);
        unsigned char* buffer = file.GetDataPtr();
        EXPECT_EQ(file.Read(buffer, 5), 5u);
        EXPECT_EQ(file.Read(buffer + 5, 5), 3u);
        EXPECT_EQ(std::string(buffer, buffer + 8), "abcdefgh");
        EXPECT_EQ(file.GetOffset(), 8u);
        EXPECT_EQ(file.Read(buffer, 5), 0u);
        file.SetTime(1, 2);
        file.EndOfFile();
        EXPECT_EQ(StatusOf("file").st_mtime, before.st_mtime) << "reading sets no times";
        EXPECT_FALSE(file.IsOpen());
    }
}

TEST_F(YFileTest, OnlyRegularFilesAreOpened)
{
    m_directory.Write("file", "content");
    m_directory.MakeDirectory("directory");
    fs::create_symlink("file", m_directory / "link");
    ASSERT_EQ(mkfifo((m_directory / "fifo").c_str(), 0600), 0);
    for (const std::string name : {"directory", "link", "fifo"}) {
        YFile file(YFile::OPEN_MODE_READ, At(name), YFile::OPT_NONE);
        EXPECT_FALSE(file.IsOpen()) << name;
        EXPECT_EQ(file.IsDirectory(), name == "directory");
        EXPECT_EQ(file.IsSymbolicLink(), name == "link");
        EXPECT_EQ(file.GetAttributes(), name == "directory" ? 0x10u : 0u) << name;
        EXPECT_EQ(file.GetModeFlags(), StatusOf(name).st_mode) << name;
        EXPECT_RAISES(file.GetInode(), ErrorCode::InvalidState, "GetInode", "File class not open");
        char byte;
        EXPECT_RAISES(file.Read(&byte, 1), ErrorCode::InvalidState, "Read", "File is not open");
        EXPECT_EQ(file.Write("x", 1), 0u) << name;
    }
    YFile link(YFile::OPEN_MODE_READ, At("link"), YFile::OPT_NONE);
    EXPECT_EQ(link.GetSymbolicLinkTarget(), "file");
}

TEST_F(YFileTest, EntryIsReadThroughDirectory)
{
    m_directory.MakeDirectory("old");
    m_directory.Write("old/file", "content");
    fs::create_symlink("target", m_directory / "old/link");
    ASSERT_EQ(mkfifo((m_directory / "old/fifo").c_str(), 0600), 0);
    const Krt::File::YDirectory directory = Krt::File::YDirectory::Open(At("old"));
    fs::rename(m_directory / "old", m_directory / "new");
    YFile file;
    const YString name = "file", linkName = "link";
    file.OpenEntry(directory, name, At("old/file"));
    char bytes[8];
    EXPECT_EQ(file.Read(bytes, 8), 7u);
    EXPECT_EQ(file.GetInode(), StatusOf("new/file").st_ino);
    EXPECT_RAISES(file.GetSymbolicLinkTarget(), ErrorCode::InvalidState, "GetSymbolicLinkTarget", "");
    for (const YString other : {"link", "fifo"}) {
        file.OpenEntry(directory, other, At("old/x"));
        EXPECT_EQ(file.GetModeFlags(), StatusOf("new/" + other.Bytes()).st_mode);
        EXPECT_FALSE(file.IsOpen());
        EXPECT_TRUE(file.GetHandle().IsEmpty());
    }
    file.OpenEntry(directory, linkName, At("old/link"));
    EXPECT_EQ(file.GetSymbolicLinkTarget(), "target");
    fs::remove(m_directory / "new/link");
    EXPECT_EQ(Testing::OsErrorOf([&] { static_cast<void>(file.GetSymbolicLinkTarget()); }), ENOENT);
    EXPECT_EQ(Testing::OsErrorOf([&] { file.OpenEntry(directory, linkName, At("old/link")); }), ENOENT);
}

TEST_F(YFileTest, InvalidModeAndFailedOpenRaise)
{
    YFile file;
    for (const unsigned int mode : {0u, 4u})
        EXPECT_RAISES(file.Open(static_cast<YFile::OPEN_MODE>(mode), At("file"), NoOptions),
                      ErrorCode::InvalidState, "Open", "Invalid file mode");
    EXPECT_EQ(file.GetOpenMode(), 4u) << "stays stored";
    EXPECT_EQ(Testing::OsErrorOf([&] { file.Open(YFile::OPEN_MODE_READ, At("missing"), NoOptions); }),
              ENOENT);
    EXPECT_EQ(file.GetOpenMode(), YFile::OPEN_MODE_READ);
    EXPECT_EQ(file.GetPath(), At("missing"));
    m_directory.Write("file", "x");
    file.Open(YFile::OPEN_MODE_READ, At("file"), NoOptions);
    EXPECT_EQ(file.GetSize(), 1u);
    EXPECT_RAISES(file.Seek(0), ErrorCode::NotImplemented, "Seek",
                  "Seeking within files is currently not implemented in the unix build of the agent");
}

TEST_F(YFileTest, WritingReplacesFile)
{
    m_directory.Write("file", "old content");
    fs::create_hard_link(m_directory / "file", m_directory / "hard");
    YFile file(YFile::OPEN_MODE_WRITE, At("file"), YFile::OPT_NONE);
    EXPECT_EQ(file.Write("new ", 4), 4u);
    EXPECT_EQ(file.Write("one", 3), 3u);
    file.SetTime(1000, 2000);
    EXPECT_NE(StatusOf("file").st_mtime, 2000) << "recorded only";
    file.Close();
    file.Close();
    file.SetTime(1, 1);
    EXPECT_EQ(StatusOf("file").st_atime, 1000);
    EXPECT_EQ(StatusOf("file").st_mtime, 2000);
    EXPECT_EQ(Testing::ReadFile(m_directory / "file"), "new one");
    EXPECT_EQ(Testing::ReadFile(m_directory / "hard"), "old content");
    EXPECT_NE(StatusOf("file").st_ino, StatusOf("hard").st_ino);
}

TEST_F(YFileTest, WritingCreatesParentsAndSetsTimesToZero)
{
    YFile(YFile::OPEN_MODE_WRITE, At("a/b/file"), NoOptions).Write("x", 1);
    EXPECT_EQ(StatusOf("a/b/file").st_mtime, 0) << "the destructor closes";
    YFile folder(YFile::OPEN_MODE_WRITE, At("c/folder"), YFile::OPT_DIRECTORY);
    folder.Open(YFile::OPEN_MODE_WRITE, At("c/folder"), YFile::OPT_DIRECTORY);
    folder.SetTime(5, 5);
    EXPECT_EQ(folder.Write("x", 1), 0u);
    EXPECT_EQ(folder.GetOffset(), 0u);
    folder.Close();
    EXPECT_TRUE(S_ISDIR(StatusOf("c/folder").st_mode));
    EXPECT_NE(StatusOf("c/folder").st_mtime, 5);
}

TEST_F(YFileTest, FailedTimesAreSetBySecondClose)
{
    YFile file(YFile::OPEN_MODE_WRITE, At("file"), NoOptions);
    fs::remove(m_directory / "file");
    EXPECT_RAISES_OS(file.Close(), MessageType::General, ENOENT, "SetFileTime",
                     "Failed to set file time on file: " + m_directory / "file");
    EXPECT_EQ(file.GetOpenMode(), YFile::OPEN_MODE_WRITE);
    m_directory.Write("file", "x");
    file.SetTime(7, 7);
    file.Close();
    EXPECT_EQ(StatusOf("file").st_mtime, 7) << "tried again";
    file.Open(YFile::OPEN_MODE_WRITE, At("other"), NoOptions);
    fs::remove(m_directory / "other");
    file.Open(YFile::OPEN_MODE_READ, At("file"), NoOptions);
    EXPECT_TRUE(file.IsRegularFile()) << "opening again drops the failure";
    const YFile lost(YFile::OPEN_MODE_WRITE, At("lost"), NoOptions);
    fs::remove(m_directory / "lost"); // the destructor ignores the failure
}

TEST_F(YFileTest, ChangesEntryAtItsPath)
{
    m_directory.Write("file", "x");
    YFile file(YFile::OPEN_MODE_READ, At("file"), NoOptions);
    const unsigned int user = geteuid() == 0 ? 1234 : geteuid();
    const unsigned int group = geteuid() == 0 ? 4321 : getegid();
    file.SetUID(user);
    file.SetGID(group);
    file.SetModeFlags(S_IFREG | 0751);
    file.OpenForWrite();
    const struct stat status = StatusOf("file");
    EXPECT_EQ(status.st_uid, user);
    EXPECT_EQ(status.st_gid, group);
    EXPECT_EQ(status.st_mode, S_IFREG | 0751u);
    EXPECT_EQ(status.st_size, 1) << "it was opened for reading";
    file.Initialize(1);
    EXPECT_FALSE(file.IsOpen());
    EXPECT_EQ(Testing::OsErrorOf([&] { file.SetUID(user); }), ENOENT) << "without a path";
}

TEST_F(YFileTest, StepsAreLogged)
{
    m_directory.Write("in", "abc");
    const std::string out = m_directory / "out";
    const Testing::LogCapture log({"FileIo"});
    YFile file(YFile::OPEN_MODE_WRITE, At("out"), static_cast<YFile::OPTIONS>(3));
    file.Write("ab", 2);
    file.SetTime(255, 16);
    file.Close();
    file.Write("ab", 2);
    file.Open(YFile::OPEN_MODE_READ, At("in"), NoOptions);
    char buffer[8];
    file.Read(buffer, 8);
    file.Open(YFile::OPEN_MODE_WRITE, At("dir"), YFile::OPT_DIRECTORY);
    EXPECT_EQ(log.Text(),
              "YFile: Creating file for write " + out + " Option 3\n" + "YFile: Successfully opened file " +
                  out + "\n" + "YFile: Writing 2 to file with path=" + out + "  isopen = 1\n" +
                  "YFile: Setting file times\nYFile:    Access time: ff\nYFile:    Write time: 10\n" +
                  "YFile: Writing 2 to file with path=" + out + "  isopen = 0\n" +
                  "YFile: Successfully opened file " + m_directory / "in\n" +
                  "YFile: Read 8 bytes from file " + m_directory / "in\n" + "YFile: Creating folder " +
                  m_directory / "dir\n" + "YFile: Successfully opened file " + m_directory / "dir\n");
    EXPECT_EQ(Testing::Printed(static_cast<YFile::OPTIONS>(9)), "OPT_NONE");
    EXPECT_EQ(Testing::Printed(YFile::OPT_DIRECTORY), "");
}

TEST_F(YFileTest, DisabledAttributesAreNotRead)
{
    class Switched : public YFile
    {
    public:
        using YFile::YFile;
        bool IsXattrDisabled() const override { return true; }
    };
    m_directory.Write("file", "x");
    unsigned char value[] = {'2'};
    Switched off(YFile::OPEN_MODE_READ, At("file"), NoOptions);
    if (Testing::OsErrorOf([&] { off.AddExtendedAttribute("user.b", value, 1); }) != 0)
        GTEST_SKIP() << "the file system of the temporary directory keeps no extended attributes";
    EXPECT_TRUE(off.ListExtendedAttributes().empty());
    EXPECT_TRUE(off.GetExtendedAttributeMap().empty());

    YFile file(YFile::OPEN_MODE_READ, At("file"), NoOptions);
    const Testing::Configuration configuration("disableXattr=false\n");
    EXPECT_TRUE(file.GetExtendedAttributeMap().contains("user.b"));
    const auto names = file.ListExtendedAttributes();
    EXPECT_EQ(std::count(names.begin(), names.end(), "user.b"), 1);
    configuration.Set("disableXattr=true\n");
    EXPECT_TRUE(file.GetExtendedAttributeMap().empty()) << "read afresh";
}

} // namespace
