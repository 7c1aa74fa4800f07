#include "Backup/Core/YJobPath.h"

#include "testing/Raises.h"

using Backup::ErrorCode;
using Backup::MessageType;
using Backup::YJobPath;
using Backup::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Component = YJobPath::Component;

namespace {

// Returns the components as in "602:a 603:b|display": the class in hexadecimal, the name, and the display
// name if it has one.
std::string Short(const YJobPath& path)
{
    std::ostringstream text;
    for (unsigned long i = 0; i < path.GetComponentCount(); ++i) {
        const Component& component = path.GetComponent(i);
        text << (i ? " " : "") << std::hex << component.m_classId << ':' << component.m_name.CStr();
        if (!component.m_displayName.IsEmpty())
            text << '|' << component.m_displayName.CStr();
    }
    return text.str();
}

YJobPath Of(std::initializer_list<Component> components)
{
    YJobPath path;
    for (const Component& component : components)
        path += component;
    return path;
}

const Component App("app", "Application", 0, 0);
const Component DirA("a", "", YJobPath::ClassFileSystemContainer, 0);
const Component FileB("b", "", YJobPath::ClassFileSystemFile, 0);

TEST(YJobPath, FilePathBecomesComponents)
{
    const struct
    {
        const char* name;
        YJobPath base;
        const char* path;
        bool isDirectory;
        const char* expected;
    } rows[] = {
        {"file", {}, "/a/a", false, "602:a 603:a"},
        {"directory", {}, "/a/b", true, "602:a 602:b"},
        {"root", {}, "/", false, ""},
        {"base kept", App, "/b", false, "0:app|Application 603:b"},
        {"volume of Windows", {}, "C:/a/b", false, "602:C: 602:a 603:b"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Short(YJobPath::FromFilePath(row.base, row.path, row.isDirectory)), row.expected)
            << row.name;
}

TEST(YJobPath, DisplayPathJoinsNames)
{
    YJobPath parsed("a//b/");
    EXPECT_EQ(Short(parsed), "0:a|a 0:b|b");
    EXPECT_EQ(YString(parsed), "a/b");
    parsed.ParseDisplayPath("c");
    EXPECT_EQ(Short(parsed), "0:c|c");
    EXPECT_EQ(Of({App, DirA}).GetDisplayPath(), "app/a");
    EXPECT_EQ(Of({Component("/", "", 0x602, 0), DirA}).GetDisplayPath(), "//a");
    EXPECT_EQ(Of({Component("", "", 0, 0), DirA}).GetDisplayPath(), "a");
}

TEST(YJobPath, FileSystemPortionIsJoined)
{
    EXPECT_EQ(Of({DirA, FileB}).GetFilesystemPortion(), "/a/b");
    EXPECT_EQ(Of({App, DirA, FileB}).GetFilesystemPortion(), "/a/b");
    EXPECT_EQ(YJobPath::FromFilePath({}, "C:/a", true).GetFilesystemPortion(), "/C:/a");
    EXPECT_RAISES(Of({DirA, App, FileB}).GetFilesystemPortion(), ErrorCode::InvalidArgument,
                  "GetFilesystemPortion",
                  "Job path is invalid, non-fs component found at index 1 after fs-component: "
                  R"({"components":[{"class_id":1538,"subclass_id":0,"name":"a"},)"
                  R"({"class_id":0,"subclass_id":0,"name":"app","display_name":"Application"},)"
                  R"({"class_id":1539,"subclass_id":0,"name":"b"}]})");
    EXPECT_RAISES(YJobPath::FromFilePath({}, "/", false).GetFilesystemPortion(), ErrorCode::InvalidArgument,
                  "GetFilesystemPortion",
                  "Job path does not contain any filesystem components: {\"components\":[]}");
}

TEST(YJobPath, AccessBeyondEndRaises)
{
    YJobPath empty;
    empty.RemoveLeaf();
    EXPECT_RAISES(empty.GetRoot(), ErrorCode::EmptyJobPath, "GetRoot", "Cannot GetRoot on empty YJobPath");
    EXPECT_RAISES(empty.GetLeaf(), ErrorCode::EmptyJobPath, "GetLeaf", "Cannot GetLeaf on empty YJobPath");
    EXPECT_RAISES(YJobPath("a/b").GetComponent(2), ErrorCode::InvalidArgument, "ValidateRange",
                  "Index 2 out of range of total components 2");
    const YJobPath path = Of({App, DirA, FileB});
    EXPECT_EQ(path.Find(0, 0x602), 1u);
    EXPECT_EQ(path.Find(2, 0x602), 3u);
    EXPECT_EQ(path.Find(7, 0), 3u);
}

TEST(YJobPath, RangesAndSelfAreCopied)
{
    const YJobPath path("a/b/c");
    EXPECT_EQ(YJobPath(path, 1, 1000).GetDisplayPath(), "b/c");
    EXPECT_EQ(YJobPath(path, 1, 1).GetDisplayPath(), "b");
    EXPECT_EQ(YJobPath(path, 1, ~0UL).GetDisplayPath(), "b/c");
    EXPECT_EQ(YJobPath(path, 4, 1).GetComponentCount(), 0u);
    YJobPath self = path;
    self.Copy(self, 1, 2);
    self.Append(self);
    self.AppendComponent(self.GetRoot());
    EXPECT_EQ(self.GetDisplayPath(), "b/c/b/c/b");
    YJobPath parsed(Component("a name too long to be kept in place/x", "", 0, 0));
    parsed.ParseDisplayPath(parsed.GetLeaf().m_name);
    EXPECT_EQ(parsed.GetComponentCount(), 2u);
    YJobPath taken;
    taken = std::move(self);
    EXPECT_EQ(taken.GetComponentCount(), 5u);
    EXPECT_EQ(self.GetComponentCount(), 0u);
}

TEST(YJobPath, ComparesByClassSubclassAndName)
{
    // In order; those of one number are equal.
    const std::pair<int, YJobPath> rows[] = {
        {0, {}},
        {1, Component("a", "", 1, 0)},
        {1, Component("a", "shown", 1, 0)},
        {2, Of({Component("a", "", 1, 0), Component("z", "", 0, 0)})},
        {3, Component("a\xC3\xA9", "", 1, 0)},
        {4, Component("b", "", 1, 0)},
        {5, Component("a", "", 1, 1)},
        {6, Component("", "", 2, 0)},
    };
    for (const auto& [i, a] : rows) {
        for (const auto& [j, b] : rows) {
            EXPECT_EQ(a < b, i < j) << i << " " << j;
            EXPECT_EQ(a == b, i == j) << i << " " << j;
            EXPECT_EQ(a != b, i != j) << i << " " << j;
            EXPECT_EQ(a.IsWithin(b), i == j || j == 0 || (i == 2 && j == 1)) << i << " " << j;
        }
    }
}

TEST(YJobPath, JsonIsWrittenAsRead)
{
    const std::string text = R"({"components":[{"class_id":7,"subclass_id":65535,"name":"x"},)"
                             R"({"class_id":4294967295,"subclass_id":0,"name":"","display_name":"D"}]})";
    const auto value = YValue::Parse(text);
    EXPECT_EQ(YValue::Create<YJobPath>(value->Convert<YJobPath>())->Stringify(true).Bytes(), text);

    YObject holder;
    holder.Put("path", value);
    const YJobPath& path = holder.Get<YJobPath>("path", MessageType::Runtime);
    EXPECT_EQ(Short(path), "7:x ffffffff:|D");
    EXPECT_EQ(&path, &holder.Get<YJobPath>("path", MessageType::Runtime));

    const std::pair<std::string, std::string> rows[] = {
        {R"("subclass_id":2,"name":"n")", "JSON object has no key \"class_id\""},
        {R"("class_id":2,"name":"n")", "JSON object has no key \"subclass_id\""},
        {R"("class_id":2,"subclass_id":0)", "JSON object has no key \"name\""},
        {R"("class_id":2,"subclass_id":65536,"name":"n")", "bad numeric conversion: positive overflow"},
        {R"("class_id":1,"subclass_id":2,"name":"n","display_name":1)",
         "JSON value is no string, but: number"},
    };
    for (const auto& [members, error] : rows) {
        const auto document = YValue::Parse("{\"components\":[{" + members + "}]}");
        const std::string raised =
            Testing::ErrorOf([&document = document] { document->Convert<YJobPath>(); });
        EXPECT_TRUE(raised.ends_with(": " + error)) << members << raised;
    }
    EXPECT_NE(Testing::ErrorOf([] { YValue::Parse("{}")->Convert<YJobPath>(); }), "");
}

} // namespace
