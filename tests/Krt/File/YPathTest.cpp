#include "Krt/File/YPath.h"

#include "testing/OnThreads.h"
#include "testing/Raises.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YPath;

// fuzz/ compares the operations that split paths with a plain model; these are the others.
TEST(YPath, OperationsAreTextual)
{
    const YString sep = "/";
    const auto* const s = sep.CStr();
    EXPECT_EQ(YPath::ConvertToOsPathSep("a/b", "\\"), "a\\b");
    EXPECT_EQ(YPath::AppendPathSep("", s), "/");
    EXPECT_EQ(YPath::AppendPathSep("a/", s), "a/");
    EXPECT_EQ(YPath::PrependPathSep("", s), "/");
    EXPECT_EQ(YPath::PrependPathSep("/a", s), "/a");
    EXPECT_EQ(YPath::RemoveLeadingPathSep("//a/", s), "a/");
    EXPECT_EQ(YPath::RemoveLeadingPathSep("//", s), "");
    EXPECT_TRUE(std::is_sorted(YPath::s_volumePrefixes.begin(), YPath::s_volumePrefixes.end()));
    EXPECT_EQ(YPath("/a/b").GetComponent(1), "b");
    EXPECT_RAISES(YPath("/").GetComponent(0), ErrorCode::NoPathComponent, "GetComponent",
                  "No path component at index 0 /");
}

TEST(YPath, ConvertsFromStandardStringAndPrints)
{
    const std::string text = "/a/b//\xFF/";
    const YPath path(text);
    EXPECT_EQ(path, "/a/b//\xFF");
    EXPECT_EQ(YPath(std::string_view(text).substr(0, 5)), "/a/b");
    std::ostringstream printed;
    printed << std::setw(10) << path << YString(std::string_view("a\0b", 3));
    EXPECT_EQ(printed.str(), std::string("   /a/b//\xFF"
                                         "a\0b",
                                         13));
}

TEST(YPath, ThreadsShareOnePath)
{
    for (int round = 0; round < 50; ++round) {
        const YPath path("/a/b/c");
        Testing::OnThreads(4, [&](int) {
            EXPECT_EQ(path.GetComponent(2), "c");
            EXPECT_EQ(path.AsUnixPath(true), "/a/b/c/");
            EXPECT_EQ(path.Length(), 6U);
            const YPath copy(path);
            EXPECT_EQ(copy.GetParent(), "/a/b");
            EXPECT_TRUE(path.IsChildOf(copy, true));
        });
    }
}
