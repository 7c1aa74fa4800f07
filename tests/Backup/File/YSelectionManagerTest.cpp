#include "Backup/File/YSelectionManager.h"

#include "testing/LogCapture.h"
#include "testing/OnThreads.h"
#include "testing/Printed.h"
#include "testing/Raises.h"
#include "testing/SelectionText.h"

#include "Krt/Container/YSet.h"
#include "Krt/JSON/YValue.h"

#include <functional>
#include <regex>
#include <tuple>

namespace {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionManager;
using Krt::ErrorCode;
using Krt::File::YPath;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Testing::Printed;
using Testing::Rule;
using Testing::Tree;
using Testing::Words;

unsigned int CountNodes(const YSelectionManager& tree)
{
    unsigned int count = 0;
    tree.VisitAllNodes([&](const YSelectionManager::YSelectionManagerNode*) { ++count; });
    return count;
}

// docs/rules.md describes how the tree stays minimal; a plain list is the model.
TEST(YSelectionManager, IncludeWithoutPathRaises)
{
    YSelectionManager tree;
    EXPECT_RAISES(tree.Add(Rule("include - any")), ErrorCode::InvalidArgument, "Add",
                  "Cannot add root include using empty path on Unix.  Must use root path (/).  " +
                      Printed(Rule("include - any")));
    EXPECT_TRUE(tree.Add(Rule("exclude - any")));
    EXPECT_EQ(Words(tree), "exclude / any");
}

TEST(YSelectionManager, DeletedPathLosesItsBranch)
{
    const std::string before = "include /a/b/c any";
    YSelectionManager tree = Tree(before);
    for (const char* path : {"/a/x", "/a/b/c/d", "/none/of/these"})
        tree.Delete(path);
    EXPECT_EQ(Words(tree), before) << "without a node";
    tree.Delete("/a/b");
    EXPECT_EQ(CountNodes(tree), 2U) << "waypoints stay";
    EXPECT_FALSE(tree == YSelectionManager());
    const auto* const root = tree.FindNode("/", true).first;
    tree.Delete("/");
    EXPECT_TRUE(tree == YSelectionManager());
    tree.Add(Rule("include / any"));
    tree.FromJSON(YSelectionManager().ToJSON("/"));
    EXPECT_TRUE(tree == YSelectionManager());
    EXPECT_EQ(tree.FindNode("/", true).first, root) << "the root is cleared, not replaced";
    EXPECT_FALSE(root->HasAnyIncludesBelow());
}

TEST(YSelectionManager, DeletedIncludeLosesEmptyBranch)
{
    YSelectionManager tree =
        Tree("include /a exact=x; include /a/b/c any; exclude /a/b/c any; include /d/e any");
    EXPECT_FALSE(tree.Delete(Rule("include /a/b any"))) << "an equal rule is at another path";
    EXPECT_FALSE(tree.Delete(Rule("include /a exact=x explicit"))) << "the explicit flag counts";
    EXPECT_TRUE(tree.Delete(Rule("include /a/b/c any")));
    EXPECT_EQ(CountNodes(tree), 6U) << "an exclude keeps the branch";
    EXPECT_TRUE(tree.Delete(Rule("include /d/e any")));
    EXPECT_EQ(CountNodes(tree), 4U) << "the branch goes with its last rule";
    EXPECT_TRUE(tree.Delete(Rule("include /a/no/node exact=x"))) << "found at the nearest ancestor";
    EXPECT_EQ(Words(tree), "exclude /a/b/c any");
}

TEST(YSelectionManager, ExcludeIsNotDeleted)
{
    YSelectionManager tree = Tree("exclude /a/b/c any");
    EXPECT_TRUE(tree.Delete(Rule("exclude /a/b/c any"))) << "found";
    EXPECT_EQ(Words(tree), "exclude /a/b/c any");
}

TEST(YSelectionManager, RuleOfUnknownTypeIsNotStored)
{
    YSelectionManager tree = Tree("include /a any");
    const Backup::File::YSelectionPathDescriptor rule("/a/b", Krt::Match::AnyDescriptor(),
                                                      YSelectionDescriptor::Recursive,
                                                      static_cast<YSelectionManager::SelectionType>(4), true);
    EXPECT_TRUE(tree.Add(rule));
    EXPECT_EQ(Words(tree), "include /a any");
    EXPECT_EQ(CountNodes(tree), 3U);
    EXPECT_TRUE(tree.Delete(rule)) << "no set contains rules of this type";
    EXPECT_EQ(CountNodes(tree), 2U) << "the empty branch goes";

    YSelectionManager below = Tree("include /a/b exact=x");
    below.Add("/a", Krt::Match::AnyDescriptor(), static_cast<YSelectionDescriptor::RecursionType>(2),
              YSelectionManager::SelectionType::Include, true);
    EXPECT_EQ(CountNodes(below), 2U) << "only a rule that is known not to be recursive prunes nothing below";

    YSelectionManager hiding = Tree("include /a recursive any; exclude /a recursive exact=x");
    hiding.Add("/a", Krt::Match::ExactDescriptor("y", true),
               static_cast<YSelectionDescriptor::RecursionType>(2), YSelectionManager::SelectionType::Exclude,
               false);
    EXPECT_EQ(hiding.GetPathSelectionType("/a/b/x"), YSelectionDescriptor::Exclude);
}

TEST(YSelectionManager, NearestNodeIsFound)
{
    const YSelectionManager tree = Tree("include /a/b any; include C:/x any");
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"", "/", true},      {"/", "/", true},        {"/a", "/a", true},  {"/a/b/c/d", "/a/b", false},
        {"/A/b", "/", false}, {"C:/x", "/C:/x", true}, {"c:/x", "/", false}};
    for (const auto& [path, nearest, isOwn] : rows) {
        const auto [node, found] = tree.FindNode(path, false);
        EXPECT_EQ(node->GetPath().Bytes(), nearest) << path;
        EXPECT_EQ(found, isOwn) << path;
    }
    EXPECT_RAISES(tree.FindNode("/a/c", true), ErrorCode::NotFound, "FindNode", "");
    using Node = YSelectionManager::YSelectionManagerNode;
    Node above("//x/", tree.FindNode("/", true).first), nameless("", &above), below("/y", &nameless);
    EXPECT_EQ(below.GetPath().Bytes(), "/x/y") << "a path is joined from its names";
}

TEST(YSelectionManager, CopiesAreEqualAndIndependent)
{
    const std::string rules = "include / any; include /a/b any; exclude /a/b exact=c";
    const YSelectionManager tree = Tree(rules);
    YSelectionManager copy = tree;
    EXPECT_TRUE(copy == tree);
    copy.Add(Rule("include /a/b recursive any"));
    EXPECT_EQ(Words(tree), rules) << "the copy is apart";
    EXPECT_FALSE(copy == tree);
    const std::string rule = "include /a any; exclude /a exact=b";
    for (const std::string other :
         {"include /b any; exclude /b exact=b", "include /a any", "exclude /a exact=b",
          "include /a recursive any; exclude /a exact=b", "include /a any; silent /a exact=b",
          "include /a any; exclude /a exact=c"})
        EXPECT_FALSE(Tree(rule) == Tree(other)) << other;
    EXPECT_FALSE(Tree(rule) == Tree(rule + "; include /b any"));
    EXPECT_TRUE(Tree("include /a any") == Tree("include /a any nocase")) << "all names are all names";

    YSelectionManager moved = std::move(copy);
    copy = tree;
    EXPECT_TRUE(copy == tree);
    copy.Swap(moved);
    EXPECT_TRUE(moved == tree);
    EXPECT_EQ(Words(copy), "include / any; include /a/b recursive any; exclude /a/b exact=c");
}

TEST(YSelectionManager, ChangesAreLogged)
{
    const Testing::LogCapture log({"SelectionBuild"});
    YSelectionManager tree = Tree("include /a/b exact=x; exclude /a/b exact=y");
    tree.Add(Rule("include /a recursive any"));
    tree.Add(Rule("exclude /a recursive any"));
    tree.Add(Rule("include /a any"));
    tree.Delete("/b");
    tree.Delete("/a");
    tree.Delete("/");
    const std::regex rule("descriptor: (?!path).*?, m_explicitSelection: 0"); // as its class prints it
    EXPECT_EQ(std::regex_replace(log.Text(), rule, "RULE"),
              R"(YSelectionManager: YSelectionManager::Add called for: path: /a/b RULE
YSelectionManager: Added include path: /a/b RULE
YSelectionManager: YSelectionManager::Add called for: path: /a/b RULE
YSelectionManager: Added exclude path: /a/b RULE
YSelectionManager: YSelectionManager::Add called for: path: /a RULE
YSelectionManagerNode: At node for /a/b include descriptor RULE prunes RULE
YSelectionManager: Added include path: /a RULE
YSelectionManager: YSelectionManager::Add called for: path: /a RULE
YSelectionManagerNode: At node for /a/b exclude descriptor RULE prunes RULE
YSelectionManager: Added exclude path: /a RULE
YSelectionManager: YSelectionManager::Add called for: path: /a RULE
YSelectionManager: Not adding redundant descriptor: path: /a RULE
YSelectionManager: YSelectionManager::Delete called for: /b
YSelectionManager: YSelectionManager::Delete called for: /a
YSelectionManager: Erased node: /
YSelectionManager: YSelectionManager::Delete called for: /
)");
}

// Deep enough for a recursion to overflow the stack.
TEST(YSelectionManager, DeepTreeNeedsNoRecursion)
{
    std::string deep;
    for (int level = 0; level < 200000; ++level)
        deep += "/d";
    const YPath bottom{Krt::YString(std::string_view(deep))};
    const Krt::Match::AnyDescriptor any;
    YSelectionManager tree;
    tree.Add(bottom, any, YSelectionDescriptor::NonRecursive, YSelectionDescriptor::Include, true);
    EXPECT_EQ(tree.GetPathSelectionType(bottom), YSelectionDescriptor::NotSelectedDoRecurse);
    EXPECT_EQ(tree.GetPathSelectionType("/d"), YSelectionDescriptor::NotSelectedDoRecurse);
    EXPECT_EQ(tree.GetIncludeTops("/"), std::set<YPath>{bottom});
    YSelectionManager copy = tree;
    EXPECT_TRUE(copy == tree);
    copy.FromJSON(tree.ToJSON("/"));
    EXPECT_TRUE(copy == tree);
    Printed(*tree.FindNode(bottom, true).first);
    copy.Add("/d", any, YSelectionDescriptor::Recursive, YSelectionDescriptor::Include, true);
    EXPECT_EQ(CountNodes(copy), 2U);
    tree.Delete("/");
    EXPECT_EQ(CountNodes(tree), 1U);
}

// Two writers and six readers. Whatever tree a query meets, the rules about /a/b hold.
TEST(YSelectionManager, ThreadsQueryDuringChanges)
{
    const std::string rules = "include /a recursive any; exclude /a/b recursive exact=c";
    YSelectionManager tree = Tree(rules), other = Tree(rules + "; exclude /a/x any");
    const auto holds = [](const YSelectionManager& asked) {
        EXPECT_TRUE(asked.IsPathSelected("/a/b/d/e"));
        EXPECT_EQ(asked.GetPathSelectionType("/a/b/c"), YSelectionDescriptor::Exclude);
        EXPECT_EQ(asked.GetIncludeTops("/"), std::set<YPath>{"/a"});
    };
    const auto write = [&](int writer) {
        if (writer == 0) {
            tree.Add(Rule("exclude /a/x recursive any"));
            tree.Delete("/a/x");
        } else {
            tree.Swap(other);
            other = tree;
        }
    };
    const std::function<void()> reads[] = {[&] { holds(tree); }, [&] { holds(YSelectionManager(tree)); },
                                           [&] {
                                               EXPECT_TRUE(tree == tree);
                                               static_cast<void>(tree == other);
                                               YSelectionManager read;
                                               read.FromJSON(tree.ToJSON("/"));
                                               holds(read);
                                           }};
    Testing::OnThreads(8, [&](int thread) {
        for (int i = 0; i < 150; ++i)
            thread < 2 ? write(thread) : reads[thread % 3]();
    });
    holds(tree);
}

TEST(YSelectionManagerVisit, OnlyTopmostPathsAreVisited)
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

TEST(YSelectionManagerVisit, IncludesAreVisitedBeforeExcludes)
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

TEST(YSelectionManagerVisit, EachLevelGetsCopyOfVisitor)
{
    const YSelectionManager tree =
        Tree("include / any; include /a exact=x explicit; include /a/b any explicit; "
             "include /c exact=y explicit; exclude /c any");
    std::string counts;
    const auto count = [seen = 0, &counts](const auto&...) mutable {
        counts += std::to_string(++seen) + " ";
        return false;
    };
    tree.VisitPathsAndDescriptors("/", count, true);
    EXPECT_EQ(counts, "1 2 3 2 3 ");
    counts.clear();
    tree.VisitAllNodes(count);
    EXPECT_EQ(counts, "1 2 3 3 ");
}

// From the root docs/rules.md shows them.
TEST(YSelectionManagerVisit, TopsBelowStartAreReturned)
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

TEST(YSelectionManagerVisit, RulesThatAffectPathAreReturned)
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

TEST(YSelectionManagerVisit, GoldenDocumentIsWrittenAsRead)
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
    // The rule's own type decides which set it is inserted in. A rule that covers it prevents that.
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

TEST(YSelectionManagerVisit, RulesOfPathAreCopied)
{
    const std::tuple<const char*, const char*, const char*, const char*, const char*, const char*> rows[] = {
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
        {"rules of the root, added twice",
         "include / any; include / exact=b explicit; include / recursive glob=*", "/b", "/",
         "include / exact= explicit; include / recursive glob=*",
         "include / exact= explicit; include / recursive glob=*"},
        {"whole tree", "include / exact=a; include /b any", "/", "/", "include / exact=a; include /b any",
         "include / exact=a; include /b any"},
    };
    for (const auto& [name, source, from, to, all, includes] : rows) {
        YSelectionManager allCopied, includesCopied;
        allCopied.CopyDescriptorsFromPath(Tree(source), from, to);
        includesCopied.CopyOnlyIncludesFromPath(Tree(source), from, to);
        EXPECT_EQ(Words(allCopied), all) << name;
        EXPECT_EQ(Words(includesCopied), includes) << name;
    }
    YSelectionManager tree = Tree("include /a any");
    EXPECT_RAISES(tree.CopyDescriptorsFromPath(tree, "/a", "/a/b"), ErrorCode::InvalidState,
                  "CopyDescriptorsFromPathInternal",
                  "Source and destination selection manager may not be the same.");
    EXPECT_RAISES(tree.CopyDescriptorsFromPath(Tree(""), "/a", "/a/b"), ErrorCode::InvalidArgument,
                  "CopyDescriptorsFromPathInternal",
                  "Cannot recursively copy descriptors from parent to child");
}

TEST(YSelectionManagerVisit, EveryNodeIsPrinted)
{
    std::string text = Printed(Tree("include /a exact=b; include /a exact=c; silent /a recursive glob=*.o"));
    text = std::regex_replace(text, std::regex("address: [0-9a-f]+"), "address: N");
    text = std::regex_replace(text, std::regex("parent: [1-9a-f][0-9a-f]+"), "parent: N");
    text = std::regex_replace(text, std::regex("descriptor: .*?Type: include, .*?Selection: 0"), "RULE");
    EXPECT_EQ(text,
              "name: \"\"\n node address: N\n path: \"/\n parent: 0\n includes: \n excludes: \n"
              "name: \"a\"\n node address: N\n path: \"/a\n parent: N\n includes: RULE, RULE\n excludes: "
              "descriptor: " +
                  Printed(Krt::Match::GlobDescriptor("*.o", true)) +
                  ", m_recursionType: recursive, m_selectionType: exclude"
                  ", m_reportExclude: 0, m_explicitSelection: 0\n");
    EXPECT_TRUE(Printed(Rule("silent /a recursive glob=*.o")).starts_with("path: /a descriptor: "));
}

} // namespace
