#include "Krt/File/YPath.h"

#include "testing/Raises.h"

#include <thread>

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YPath;

TEST(YPathTest, NormalisesItsText)
{
    const std::pair<const char*, const char*> cases[] = {
        {"/a/b/", "/a/b"},      {"/", "/"},     {"///", ""},     {"a//", "a"}, {"", ""},
        {"C:\\x\\", "C:\\x\\"}, {"//a", "//a"}, {"/a/.", "/a/."}};
    for (const auto& [text, normal] : cases)
        EXPECT_EQ(YPath(text), normal) << text;
}

TEST(YPathTest, WorksOnPlainText)
{
    const YString sep = "/";
    const auto* const s = sep.CStr();
    EXPECT_EQ(YPath::ConvertToOsPathSep("a/b", "\\"), "a\\b");
    EXPECT_EQ(YPath::RemovePathSep("a\\\\", "\\"), "a");
    EXPECT_EQ(YPath::AppendPathSep("", s), "/");
    EXPECT_EQ(YPath::AppendPathSep("a", s), "a/");
    EXPECT_EQ(YPath::AppendPathSep("a/", s), "a/");
    EXPECT_EQ(YPath::PrependPathSep("", s), "/");
    EXPECT_EQ(YPath::PrependPathSep("/a", s), "/a");
    EXPECT_EQ(YPath::RemoveLeadingPathSep("//a/", s), "a/");
    EXPECT_EQ(YPath::RemoveLeadingPathSep("//", s), "");
    EXPECT_EQ(YPath::AppendPaths("", "x", s), "/x");
    EXPECT_EQ(YPath::AppendPaths("/a/", "/b/", s), "/a/b");
    EXPECT_EQ(YPath::AppendPaths("", "", s), "/");
    EXPECT_EQ(YPath::AppendPaths("a", "//", s), "a");
    EXPECT_EQ(YPath::RemoveLeadingPath("/a/b", "/a", s), "/b");
    EXPECT_EQ(YPath::RemoveLeadingPath("/a/b", "/b", s), "/a/b");
    EXPECT_EQ(YPath::GetFileFromPath("/a/", s), "");
    EXPECT_EQ(YPath::GetFileFromPath(YPath("/a/"), s), "a");
    EXPECT_EQ(YPath::GetFileFromPath("a", s), "a");
}

TEST(YPathTest, CutsTheLastComponent)
{
    const struct
    {
        const char *path, *withoutFile, *parent;
    } cases[] = {
        {"/a/b", "/a", "/a"},
        {"/a", "/", "/"},
        {"a", "", ""},
        {"/a/.", "/", "/"},
        {"/a/b/", "/a/b", "/a"},
        {"/", "/", "/"},
        {"/.", "/", "/"},
        {".", "", ""},
        {"", "", ""},
        {"/a/b/./.", "/a", "/a"},
        {"/a//b", "/a", "/a"},
        {"/a/..", "/a", "/a"},
        {"/a\xE2/b", "/a\xE2", "/a\xE2"}, // a name that is no UTF-8 keeps the separator behind it
    };
    for (const auto& [path, withoutFile, parent] : cases) {
        EXPECT_EQ(YPath::RemoveFileFromPath(path, "/"), withoutFile) << path;
        EXPECT_EQ(YPath::GetParentFromPath(path, "/"), parent) << path;
    }
}

TEST(YPathTest, TellsVolumesAndComponents)
{
    const struct
    {
        const char* path;
        const char* volume; // of the text
        const char* rest;   // of the path object
        std::vector<YString> components;
    } cases[] = {
        {"/usr", "", "/usr", {"usr"}},
        {"/", "", "/", {}},
        {"", "", "/", {}},
        {"/a//b/./c/..", "", "/a//b/./c/..", {"a", "b", "c", ".."}},
        {"C:", "C:", "", {"C:"}},
        {"C:\\x", "C:", "C:\\x", {"C:", "\\x"}},
        {"c:/x/y", "c:", "x/y", {"c:", "x", "y"}},
        {"1:/x", "", "1:/x", {"1:", "x"}},
        {"\\\\?\\c:\\dir/x", "\\\\?\\c:", "\\\\?\\c:\\dir/x", {"\\\\?\\c:", "\\dir", "x"}},
        {"\\\\?\\C:", "\\\\?\\C:/", "", {"\\\\?\\C:"}},
        {"\\\\?\\Volume{1-2}\\x",
         "\\\\?\\Volume{1-2}",
         "\\\\?\\Volume{1-2}\\x",
         {"\\\\?\\Volume{1-2}", "\\x"}},
        {"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy7\\x",
         "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy7",
         "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy7\\x",
         {"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy7", "\\x"}},
        {"\\\\?\\1:\\x", "", "\\\\?\\1:\\x", {"\\\\?\\1:\\x"}},
        {"\\\\server\\share", "", "\\\\server\\share", {"\\\\server\\share"}},
    };
    for (const auto& [path, volume, rest, components] : cases) {
        EXPECT_EQ(YPath::GetVolumeFromPath(path), volume) << path;
        EXPECT_EQ(YPath(path).RemoveVolume(), rest) << path;
        EXPECT_EQ(YPath(path).PopulateComponents(), components) << path;
        EXPECT_EQ(YPath::SplitRelativePath<std::list<YString>>(path),
                  std::list<YString>(components.begin(), components.end()));
    }
    EXPECT_TRUE(std::is_sorted(YPath::s_volumePrefixes.begin(), YPath::s_volumePrefixes.end()));
    EXPECT_EQ(YPath("/a/b").GetComponent(1), "b");
    EXPECT_RAISES(YPath("/").GetComponent(0), ErrorCode::NoPathComponent, "GetComponent",
                  "No path component at index 0 /");
}

TEST(YPathTest, KnowsItsChildren)
{
    const struct
    {
        const char *path, *parent;
        bool below, orEqual;
    } cases[] = {{"/a/b", "/a", true, true},  {"/ab", "/a", false, false}, {"/a", "/a", false, true},
                 {"/a", "/", true, true},     {"/", "/", false, true},     {"/A/b", "/a", false, false},
                 {"/a", "/a/b", false, false}};
    for (const auto& [path, parent, below, orEqual] : cases) {
        EXPECT_EQ(YPath(path).IsChildOf(parent, false), below) << path << " " << parent;
        EXPECT_EQ(YPath(path).IsChildOf(parent, true), orEqual) << path << " " << parent;
    }
}

TEST(YPathTest, AnotherTextMeansOtherCaches)
{
    YPath path("/a");
    EXPECT_EQ(path.AsUnixPath(true), "/a/");
    EXPECT_EQ(path.PopulateComponents().size(), 1U);
    path = YPath("/b/c");
    EXPECT_EQ(path.AsUnixPath(true), "/b/c/");
    const YPath other("/d");
    path = other;
    EXPECT_EQ(path.AsUnixPath(true), "/d/");
    EXPECT_EQ(path.GetComponent(0), "d");
    const YPath moved(std::move(path));
    EXPECT_EQ(moved.GetComponent(0), "d");
    EXPECT_EQ(path.AsUnixPath(true), "/");
}

TEST(YPathTest, ThreadsShareOnePath)
{
    for (int round = 0; round < 50; ++round) {
        const YPath path("/a/b/c");
        std::vector<std::thread> readers;
        for (int reader = 0; reader < 4; ++reader)
            readers.emplace_back([&path] {
                EXPECT_EQ(path.GetComponent(2), "c");
                EXPECT_EQ(path.AsUnixPath(true), "/a/b/c/");
                EXPECT_EQ(path.Length(), 6U);
            });
        for (std::thread& reader : readers)
            reader.join();
    }
}
