#include "Backup/File/YSelectionManager.h"

#include "testing/Raises.h"
#include "testing/SelectionText.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/Container/YSet.h"
#include "Krt/JSON/YValue.h"
#include "Krt/Log/YStream.h"

#include <regex>

namespace {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionManager;
using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YPath;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Testing::Tree;
using Testing::Words;

TEST(YSelectionManagerVisit, PathsStopAtTheTopmost)
{
    const YSelectionManager tree = Tree("include /a any; include /a/b any; include /c any; exclude /d any");
    const auto visit = [&](YSelectionManager::SelectionType type, const char* start, const char* last) {
        std::string seen;
        const bool stopped = tree.VisitPaths(type, start, [&](const YPath& path) {
            seen += path.Bytes() + " ";
            return path == last;
        });
        return seen + (stopped ? "stopped" : "end");
    };
    EXPECT_EQ(visit(YSelectionDescriptor::Include, "/", "/a"), "/a stopped");
    EXPECT_EQ(visit(YSelectionDescriptor::Exclude, "/", ""), "/d end");
    EXPECT_EQ(visit(YSelectionDescriptor::NotSelectedDoRecurse, "/", ""), "end");
    EXPECT_EQ(visit(YSelectionDescriptor::Include, "/a/b/x/y", ""), "/a/b end")
        << "from the nearest ancestor";
    EXPECT_THROW(tree.VisitPaths(YSelectionDescriptor::Include, "/", nullptr), std::bad_function_call);
}

TEST(YSelectionManagerVisit, RulesAndNodes)
{
    const YSelectionManager tree = Tree("exclude / any; include / any; include /a any; exclude /a exact=x");
    const auto visit = [&](const char* start, bool recurse, const char* last) {
        std::string seen;
        const bool stopped = tree.VisitPathsAndDescriptors(
            start,
            [&](const YPath& path, const YSelectionDescriptor& rule) {
                seen += Words(path, rule) + "; ";
                return Words(path, rule) == last;
            },
            recurse);
        return seen + (stopped ? "stopped" : "end");
    };
    EXPECT_EQ(visit("/", false, ""), "include / any; exclude / any; end");
    EXPECT_EQ(visit("/", true, "include /a any"), "include / any; exclude / any; include /a any; stopped");
    EXPECT_RAISES(tree.VisitAllNodes(YSelectionManager::NodeVisitor()), Krt::ErrorCode::InvalidArgument,
                  "throw_exception", "call to empty boost::function");
}

// From the root docs/rules.md shows them.
TEST(YSelectionManagerVisit, TopsAndVolumes)
{
    EXPECT_EQ(Tree("include /a any; include /a/b/c any; include /d any").GetIncludeTops("/a/b"),
              std::set<YPath>{"/a/b/c"});
    Krt::Container::YSet<YPath> volumes;
    volumes.Insert("old");
    Tree("include / any").GetVolumes(volumes);
    EXPECT_EQ(volumes.Values(), std::set<YPath>{""});
    YSelectionManager().GetVolumes(volumes);
    EXPECT_EQ(volumes.Size(), 0U);
}

TEST(YSelectionManagerVisit, SelectionsWithABearingOnAPath)
{
    const YSelectionManager tree =
        Tree("exclude / recursive exact=t; include /a any; exclude /a recursive exact=o; include /a/b any; "
             "include /a/b/c any; include /a/bc any; include C:/x any");
    const auto selections = [&](const char* path) {
        std::string text;
        for (const auto& rule : tree.GetSelections(path))
            text += Words(rule.GetPath(), rule) + "; ";
        return text;
    };
    const std::string above = "exclude / recursive exact=t; exclude /a recursive exact=o; ";
    EXPECT_EQ(selections("/a/b"), above + "include /a/b any; include /a/b/c any; ");
    EXPECT_EQ(selections("/a/x/y"), above);
    EXPECT_EQ(selections("C:/x"), "exclude / recursive exact=t; ")
        << "nodes know no volume apart from a name";
    EXPECT_EQ(selections(""), selections("/"));
    EXPECT_EQ(tree.GetSelections("/").size(), 7U);
}

TEST(YSelectionManagerVisit, GoldenDocument)
{
    const std::string golden = Testing::ReadFile(GOLDEN_DIRECTORY "/selection.json");
    const auto document = YValue::Parse(golden);
    YSelectionManager tree = Tree("include /gone any");
    tree.FromJSON(document->AsObject());
    EXPECT_EQ(Words(tree), "include / exact=etc explicit; silent / recursive glob=*.tmp nocase; "
                           "include /home recursive any; exclude /home/\xC3\xA9 recursive exact=cache; "
                           "include /home-old any");
    EXPECT_EQ(YValue::FromObject(tree.ToJSON("/")).Stringify(false).Bytes(), golden);
    EXPECT_EQ(YValue::FromObject(YSelectionManager().ToJSON("")).Stringify(true).Bytes(),
              R"({"includes":[],"excludes":[]})");
}

TEST(YSelectionManagerVisit, DocumentIsAddedRuleByRule)
{
    YObject json = Tree("include /a recursive any").ToJSON("/");
    // The rule's own type decides where it goes, and what covers it keeps it out.
    json.Put("excludes", Tree("include /a/b any; include /c any explicit").ToJSON("/").Find("includes", 0));
    YSelectionManager tree;
    tree.FromJSON(json);
    EXPECT_EQ(Words(tree), "include /a recursive any; include /c any explicit");

    YObject cut;
    cut.Put("includes", json.Find("includes", 0));
    tree = Tree("exclude /old any");
    EXPECT_TRUE(Testing::CatchError([&] { tree.FromJSON(cut); }).has_value()) << "excludes are required";
    EXPECT_EQ(Words(tree), "include /a recursive any") << "the old content is gone";
}

TEST(YSelectionManagerVisit, CopiesWhatBearsOnAPath)
{
    const struct
    {
        const char* name;
        const char* source;
        const char* from;
        const char* to;
        const char* all;
        const char* includes;
    } rows[] = {
        {"from above", "include / recursive any explicit; exclude /a recursive glob=*.o", "/a/b", "/z",
         "include / exact=z; include /z recursive any; exclude /z recursive glob=*.o",
         "include / exact=z; include /z recursive any"},
        {"at the parent", "include /a glob=b* nocase; include / any; include /a exact=b explicit", "/a/b",
         "/y/z", "include /y exact=z nocase; include /y exact=z explicit",
         "include /y exact=z nocase; include /y exact=z explicit"},
        {"not about the source", "include /a exact=c; silent /a exact=b", "/a/b", "/y/z", "silent /y exact=z",
         ""},
        {"at and below", "include /a/b any; exclude /a/b/c any; include /a/bc any", "/a/b", "/z",
         "include /z any; exclude /z/c any", "include /z any"},
        {"same path", "include /a any", "/a", "/a", "include /a any", "include /a any"},
        {"whole tree", "include / exact=a; include /b any", "/", "/", "include / exact=a; include /b any",
         "include / exact=a; include /b any"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        YSelectionManager all, includes;
        all.CopyDescriptorsFromPath(Tree(row.source), row.from, row.to);
        includes.CopyOnlyIncludesFromPath(Tree(row.source), row.from, row.to);
        EXPECT_EQ(Words(all), row.all);
        EXPECT_EQ(Words(includes), row.includes);
    }
    YSelectionManager tree = Tree("include /a any");
    EXPECT_RAISES(tree.CopyDescriptorsFromPath(tree, "/a", "/a/b"), ErrorCode::InvalidState,
                  "CopyDescriptorsFromPathInternal",
                  "Source and destination selection manager may not be the same.");
    EXPECT_RAISES(tree.CopyDescriptorsFromPath(Tree(""), "/a", "/a/b"), ErrorCode::InvalidArgument,
                  "CopyDescriptorsFromPathInternal",
                  "Cannot recursively copy descriptors from parent to child");
}

TEST(YSelectionManagerVisit, PrintsEveryNode)
{
    Krt::YStream stream{YString()};
    stream << Tree("include /a exact=b; include /a exact=c");
    std::string text =
        std::regex_replace(YString(stream).Bytes(), std::regex("address: [0-9a-f]+"), "address: N");
    text = std::regex_replace(text, std::regex("parent: [1-9a-f][0-9a-f]+"), "parent: N");
    text = std::regex_replace(text, std::regex("descriptor: .*?, m_explicitSelection: 0"), "RULE");
    EXPECT_EQ(text,
              "name: \"\"\n node address: N\n path: \"/\n parent: 0\n includes: \n excludes: \n"
              "name: \"a\"\n node address: N\n path: \"/a\n parent: N\n includes: RULE, RULE\n excludes: \n");
}

} // namespace
