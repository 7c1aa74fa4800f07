#include "Backup/File/YFileDescriptor.h"

#include "testing/Printed.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <tinyxml.h>

using namespace Backup::File;
using namespace Krt::Match;
using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::File::YPath;

namespace {

const GlobDescriptor Documents("*.doc", true);

// An element whose flags are 0 unless the attributes set them.
TiXmlElement Element(const std::vector<std::pair<const char*, const char*>>& attributes)
{
    TiXmlElement element("Anything");
    element.SetAttribute("isRecursive", 0);
    element.SetAttribute("report", 0);
    for (const auto& [name, value] : attributes)
        element.SetAttribute(name, value);
    return element;
}

} // namespace

TEST(YFileDescriptorXml, GoldenElementsAreWrittenAsRead)
{
    const std::string golden = Testing::ReadFile(GOLDEN_DIRECTORY "/file-descriptor.xml");
    TiXmlDocument document;
    document.Parse(golden.c_str());
    ASSERT_FALSE(document.Error()) << document.ErrorDesc();
    TiXmlElement written("Descriptors");
    const TiXmlElement* child = document.RootElement()->FirstChildElement();
    EXPECT_EQ(YFileDescriptor(child).GetPath().Bytes(), "/home/ä & \"b\"");
    for (; child; child = child->NextSiblingElement())
        YFileDescriptor(child).SaveToXmlNode(&written);
    TiXmlPrinter printer;
    written.Accept(&printer);
    EXPECT_EQ(printer.Str(), golden);
}

TEST(YFileDescriptorXml, ReadPatternIsGlobIgnoringCase)
{
    for (const auto& [descriptor, equal] : {std::pair(Descriptor(Documents), false),
                                            {GlobDescriptor("*.doc", false), true},
                                            {ExactDescriptor("a", false), false},
                                            {AnyDescriptor(), false}}) {
        const YFileDescriptor saved("/a", descriptor, true, true);
        TiXmlElement parent("Descriptors");
        saved.SaveToXmlNode(&parent);
        const YFileDescriptor loaded(parent.FirstChildElement());
        EXPECT_EQ(loaded, YFileDescriptor("/a", GlobDescriptor(descriptor.GetPattern(), false), true, true));
        EXPECT_EQ(loaded == saved, equal) << descriptor.GetPattern().Bytes();
    }
}

TEST(YFileDescriptorXml, StarDotStarIsKeptOnKnownVolume)
{
    EXPECT_EQ(YFileDescriptor("/a", ExactDescriptor("*.*", true), false, false).GetDescriptor().GetPattern(),
              "*");
    for (const auto& [guid, mount, pattern] :
         {std::tuple("g", "/m", "*.*"), std::tuple("", "/m", "*"), std::tuple("g", "", "*")}) {
        const auto element = Element({{"fileSpec", "*.*"}, {"volumeGuid", guid}, {"mountPath", mount}});
        EXPECT_EQ(YFileDescriptor(&element).GetDescriptor().GetPattern(), pattern) << guid << mount;
    }
}

TEST(YFileDescriptorXml, DamagedAttributeRaises)
{
    const auto full = Element({{"path", "/a"}, {"fileSpec", "b"}, {"volumeGuid", "g"}, {"mountPath", "/"}});
    const auto flags = Element({{"isRecursive", "Yes"}});
    YFileDescriptor descriptor(&full);
    descriptor.LoadFromXmlNode(&flags);
    EXPECT_EQ(descriptor, YFileDescriptor("", GlobDescriptor("", false), true, false));
    EXPECT_EQ(descriptor.GetVolumeGuid(), "g");
    EXPECT_TRUE(descriptor.GetMountPath().IsEmpty());

    // Attributes before the damaged one are set.
    for (const auto& [recursive, report, after] :
         {std::tuple("maybe", "0", true), std::tuple("0", "", false)}) {
        const auto damaged = Element({{"path", "/new"}, {"isRecursive", recursive}, {"report", report}});
        descriptor.LoadFromXmlNode(&flags);
        EXPECT_RAISES_ON(descriptor.LoadFromXmlNode(&damaged), MessageType::Runtime,
                         ErrorCode::NumberConversion, "StringToNumber", "");
        EXPECT_EQ(descriptor.GetPath(), "/new");
        EXPECT_EQ(descriptor.IsRecursive(), after);
    }
}

TEST(YFileDescriptor, CheckMatchIsTrueBelowForOtherNames)
{
    using Rows = std::vector<std::pair<const char*, const char*>>;
    const Rows below = {{"/a", "/a/b"},       {"/a", "/a/c/b"}, {"/a/b", "/a//b///c"},
                        {"//a//b", "/a/b/c"}, {"/", "/a"},      {"/", "//a"},
                        {"", "/a"},           {"C:", "C:/a"}};
    const Rows outside = {{"/a", ""},     {"/a", "/a"}, {"/a", "/a/"}, {"/a", "/ab"}, {"/a", "/b/c"},
                          {"/a/b", "/a"}, {"/", "/"},   {"", "/"},     {"", "a"}};
    for (const bool isBelow : {true, false}) {
        for (const auto& [directory, path] : isBelow ? below : outside) {
            const YFileDescriptor another(directory, ExactDescriptor("x", true), false, false);
            EXPECT_EQ(another.CheckMatch(path), isBelow) << directory << " " << path;
            EXPECT_FALSE(YFileDescriptor(directory, false).CheckMatch(path));
        }
    }
    const YFileDescriptor descriptor("/a", GlobDescriptor("B*", true), false, false);
    EXPECT_FALSE(descriptor.CheckMatch("/a/c/Bb"));
    EXPECT_TRUE(descriptor.CheckMatch("/a/bb"));
}

TEST(YFileDescriptor, EqualityIgnoresReport)
{
    const YFileDescriptor one("/a", Documents, false, false);
    EXPECT_EQ(one, YFileDescriptor("/a", Documents, false, true));
    for (const YFileDescriptor& other :
         {YFileDescriptor("/b", Documents, false, false), YFileDescriptor("/a", Documents, true, false),
          YFileDescriptor("/a", ExactDescriptor("*.doc", true), false, false)})
        EXPECT_NE(one, other);
    EXPECT_EQ(YFileDescriptor("/a", true),
              YFileDescriptor("/a", Descriptor(MatchType::Any, "x", false), false, false));
}

TEST(YFileDescriptor, EmptyDescriptorHasNoPath)
{
    const YFileDescriptor descriptor("/a/b", Documents, true, false);
    EXPECT_EQ(static_cast<YPath>(descriptor), "/a/b/*.doc");
    EXPECT_EQ(static_cast<YPath>(YFileDescriptor("/a/b", false)), "/a/b");
    EXPECT_EQ(descriptor.FileName(), "b");
    EXPECT_EQ(Testing::Printed(descriptor), "Recursive descriptor: /a/b");
    EXPECT_EQ(Testing::Printed(YFileDescriptor("/", false)), "Non-recursive descriptor: /");
    const YFileDescriptor none;
    EXPECT_RAISES(none.operator YPath(), ErrorCode::InvalidState, "operator YPath", "");
    EXPECT_RAISES(none.FileName(), ErrorCode::InvalidState, "FileName", "");
}

TEST(YFileDescriptor, PathHelpersSplitAndConvert)
{
    // "/" is not listed: there the split would never end.
    EXPECT_EQ(SplitAbsolutePath(""), std::list<YString>());
    EXPECT_EQ(SplitAbsolutePath("a/b//c"), (std::list<YString>{"a", "b", "c"}));
    EXPECT_EQ(SplitAbsolutePath("C:/a"), (std::list<YString>{"C:", "a"}));
    for (const auto& [windows, native] :
         {std::pair("\\\\?\\C:\\dir\\f", "/C:/dir/f"), std::pair("C:\\dir\\", "/C:/dir"),
          std::pair("\\\\server\\share", "//server/share"), std::pair("a\\ä", "/a/ä"), std::pair("", "/")})
        EXPECT_EQ(MakeNativeTestPath(windows), native);
}
