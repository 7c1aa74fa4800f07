#include "Krt/File/YDirectory.h"

#include "testing/OrdinaryUser.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/File/Unix/Status.h"
#include "Krt/File/YEntry.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <filesystem>
#include <functional>
#include <set>

namespace {

using namespace Krt::File;
using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Testing::CatchError;
using Testing::OsErrorOf;
namespace fs = std::filesystem;

class YDirectoryTest : public testing::Test
{
protected:
    std::multiset<std::string> Names() const
    {
        std::multiset<std::string> names;
        m_directory.VisitEntries([&](const DirectoryEntry& entry) {
            names.insert(entry.name.Bytes());
            return true;
        });
        return names;
    }

    Testing::TemporaryDirectory m_temporary;
    YDirectory m_directory = YDirectory::Open(YPath(m_temporary.Path().c_str()));
};

TEST_F(YDirectoryTest, NameOfSeveralComponentsIsRefused)
{
    m_temporary.MakeDirectory("a/b");
    for (const YString& name : {YString(""), YString("."), YString(".."), YString("a/b"), YString("/a"),
                                YString("a/"), YString(std::string_view("a\0b", 3))}) {
        for (const auto& operation : std::initializer_list<std::function<void()>>{
                 [&] { m_directory.OpenDirectory(name); }, [&] { m_directory.CreateFile(name); },
                 [&] { m_directory.RemoveDirectory(name); }, [&] { YEntry(m_directory, name).SetMode(0); },
                 [&] { m_directory.Rename("a", m_directory, name); },
                 [&] { YEntry(m_directory, name).GetExtendedAttributeMap(); },
                 [&] {
                     m_directory.MakeHardLink(m_directory, name, "x");
                 }})
            EXPECT_NE(Testing::ErrorOf(operation).find(": Not the name of an entry: '"), std::string::npos)
                << name.CStr();
    }
    EXPECT_TRUE(fs::exists(m_temporary / "a/b"));
    m_directory.MakeDirectory("...", 0700);
    EXPECT_RAISES(m_directory.Stat("x/y"), ErrorCode::InvalidArgument, "Stat",
                  "Not the name of an entry: 'x/y'");
}

TEST_F(YDirectoryTest, LinkIsNeverFollowed)
{
    const Testing::TemporaryDirectory outside;
    outside.Write("file", "outside");
    fs::create_directory_symlink(outside.Path(), m_temporary / "directory");
    fs::create_symlink(outside / "file", m_temporary / "file");
    const YPath link((m_temporary / "directory").c_str());

    EXPECT_NE(OsErrorOf([&] { m_directory.OpenDirectory("directory"); }), 0);
    EXPECT_NE(OsErrorOf([&] { YDirectory::Open(link); }), 0);
    EXPECT_EQ(YDirectory::OpenFollowing(link).Stat("file").st_size, 7);
    EXPECT_EQ(OsErrorOf([&] { m_directory.OpenFile("file"); }), ELOOP);
    EXPECT_EQ(OsErrorOf([&] { m_directory.CreateFile("file"); }), EEXIST);
    EXPECT_TRUE(S_ISLNK(m_directory.Stat("file").st_mode));

    const struct stat before = YDirectory::OpenFollowing(link).Stat("file");
    YEntry(m_directory, "file").SetTimes({1, 0}, {2, 5});
    CatchError([&] { YEntry(m_directory, "file").SetMode(0); });
    if (geteuid() == 0)
        YEntry(m_directory, "file").SetOwner(12, KeepOwner);
    m_directory.MakeHardLink(m_directory, "file", "second");
    const struct stat after = YDirectory::OpenFollowing(link).Stat("file");
    EXPECT_EQ(after.st_mtime, before.st_mtime);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(m_directory.Stat("second").st_mtime, 2) << "a name for the link itself";
    m_directory.RemoveFile("file");
    EXPECT_EQ(Testing::ReadFile(outside / "file"), "outside");
}

TEST_F(YDirectoryTest, EachTypeIsMade)
{
    const YString longTarget(std::string(4095, 't').c_str());
    EXPECT_FALSE(m_directory.CreateFile("file").IsEmpty());
    m_directory.MakeDirectory("directory", 0700);
    m_directory.MakeSymbolicLink("link", longTarget);
    m_directory.MakeFifo("fifo", 0600);
    m_directory.MakeDevice("socket", S_IFSOCK | 0600, 0);
    const std::pair<const char*, mode_t> rows[] = {{"file", S_IFREG | 0600},
                                                   {"directory", S_IFDIR | 0700},
                                                   {"fifo", S_IFIFO | 0600},
                                                   {"socket", S_IFSOCK | 0600},
                                                   {"link", S_IFLNK | 0777}};
    for (const auto& [name, mode] : rows)
        EXPECT_EQ(m_directory.Stat(name).st_mode, mode) << name;
    EXPECT_EQ(m_directory.ReadSymbolicLink("link"), longTarget);
    EXPECT_EQ(OsErrorOf([&] { m_directory.ReadSymbolicLink("file"); }), EINVAL);
    EXPECT_FALSE(m_directory.OpenFile("fifo").IsEmpty()) << "opens at once";
    EXPECT_RAISES_OS(m_directory.MakeFifo("file", 0600), MessageType::General, EEXIST, "MakeFifo",
                     "Failed to create FIFO: file");
    if (OsErrorOf([&] { m_directory.MakeDevice("null", S_IFCHR | 0600, makedev(1, 3)); }) != EPERM) {
        EXPECT_EQ(m_directory.Stat("null").st_rdev, makedev(1, 3));
    }
    YEntry(m_directory, "directory").SetMode(S_IFDIR | 01750);
    EXPECT_EQ(Stat(m_directory.OpenDirectory("directory").GetHandle()).st_mode, mode_t{S_IFDIR | 01750});
}

TEST_F(YDirectoryTest, EachEntryIsListedOnce)
{
    std::multiset<std::string> expected{"...", "\xff\xfe"};
    for (int i = 0; i < 1500; ++i)
        expected.insert("entry with a name of some length " + std::to_string(i));
    for (const std::string& name : expected)
        m_directory.CreateFile(name.c_str());
    EXPECT_EQ(Names(), expected);
    int visited = 0;
    m_directory.VisitEntries([&](const DirectoryEntry& entry) {
        EXPECT_TRUE(entry.type == DT_REG || entry.type == DT_UNKNOWN);
        EXPECT_EQ(entry.inode, m_directory.Stat(entry.name).st_ino);
        return ++visited < 3;
    });
    EXPECT_EQ(visited, 3);
    EXPECT_THROW(m_directory.VisitEntries([](const DirectoryEntry&) -> bool { throw 1; }), int);
    EXPECT_EQ(Names(), expected) << "each listing starts at the beginning";
}

TEST_F(YDirectoryTest, DirectoryWithoutSearchRightIsListed)
{
    m_directory.CreateFile("file");
    ASSERT_EQ(chmod(m_temporary.Path().c_str(), 0444), 0);
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] {
        const YDirectory directory = YDirectory::Open(YPath(m_temporary.Path().c_str()));
        int count = 0;
        directory.VisitEntries([&](const DirectoryEntry&) { return ++count > 0; });
        return count == 1 && OsErrorOf([&] { directory.Stat("file"); }) == EACCES;
    }));
}

TEST_F(YDirectoryTest, EntriesAreMovedAndRemoved)
{
    m_temporary.MakeDirectory("below");
    m_temporary.Write("old", "old");
    m_temporary.Write("new", "new");
    const YDirectory below = m_directory.OpenDirectory("below");
    m_directory.Rename("new", m_directory, "old");
    m_directory.Rename("old", below, "moved");
    EXPECT_EQ(Testing::ReadFile(m_temporary / "below/moved"), "new");
    EXPECT_EQ(OsErrorOf([&] { m_directory.RemoveDirectory("below"); }), ENOTEMPTY);
    EXPECT_NE(OsErrorOf([&] { m_directory.RemoveFile("below"); }), 0);
    below.RemoveFile("moved");
    below.RemoveFile("moved");
    m_directory.RemoveDirectory("below");
    m_directory.RemoveDirectory("below");
    EXPECT_TRUE(Names().empty());
    struct stat status;
    EXPECT_FALSE(m_directory.StatIfPresent("below", status));
}

TEST_F(YDirectoryTest, MovedDirectoryIsStillReached)
{
    m_temporary.MakeDirectory("first");
    m_temporary.MakeDirectory("decoy");
    const YDirectory opened = m_directory.OpenDirectory("first");
    m_directory.Rename("first", m_directory, "elsewhere");
    m_directory.MakeSymbolicLink("first", "decoy");
    const Krt::Util::YUnxHandle file = opened.CreateFile("file");
    YEntry(file).SetTimes({100, 0}, {200, 300});
    YEntry(file).SetMode(0640);
    Sync(file);
    EXPECT_TRUE(fs::exists(m_temporary / "elsewhere/file"));
    EXPECT_TRUE(fs::is_empty(m_temporary / "decoy"));
    EXPECT_EQ(opened.Stat("file").st_mtime, 200);
    YEntry(opened, "file").SetTimes({0, UTIME_OMIT}, {7, 0});
    EXPECT_EQ(opened.Stat("file").st_atime, 100);
    EXPECT_EQ(opened.Stat("file").st_mode, mode_t{S_IFREG | 0640});
}

} // namespace
