#include "Backup/File/YSelectionManager.h"

#include "testing/LogCapture.h"
#include "testing/Raises.h"
#include "testing/SelectionText.h"

#include "Krt/JSON/YObject.h"
#include "Krt/Log/YStream.h"

#include <regex>
#include <thread>

namespace {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionManager;
using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YPath;
using Testing::Rule;
using Testing::Tree;
using Testing::Words;

unsigned int CountNodes(const YSelectionManager& tree)
{
    unsigned int count = 0;
    tree.VisitAllNodes([&](const YSelectionManager::YSelectionManagerNode*) { ++count; });
    return count;
}

// How the tree keeps itself minimal docs/rules.md tells, and a plain list judges.
TEST(YSelectionManager, OnlyAnExcludeMayHaveNoPath)
{
    YSelectionManager tree;
    Krt::YStream printed{YString()};
    printed << Rule("include - any");
    EXPECT_RAISES(tree.Add(Rule("include - any")), ErrorCode::InvalidArgument, "Add",
                  "Cannot add root include using empty path on Unix.  Must use root path (/).  " +
                      YString(printed).Bytes());
    EXPECT_TRUE(tree.Add(Rule("exclude - any")));
    EXPECT_EQ(Words(tree), "exclude / any");
}

TEST(YSelectionManager, Deletes)
{
    const std::string before = "include /a exact=x; include /a/b/c any; exclude /a/b/c any; include /d/e any";
    YSelectionManager tree = Tree(before);
    tree.Delete("/a/x");
    tree.Delete("/a/b/c/d");
    EXPECT_EQ(Words(tree), before);
    EXPECT_FALSE(tree.Delete(Rule("include /a/b any"))) << "an equal rule stands elsewhere";
    EXPECT_FALSE(tree.Delete(Rule("include /a exact=x explicit"))) << "the explicit flag counts";
    EXPECT_TRUE(tree.Delete(Rule("exclude /a/b/c any"))) << "found, and yet it stays";
    EXPECT_EQ(Words(tree), before);
    EXPECT_TRUE(tree.Delete(Rule("include /a/b/c any")));
    EXPECT_EQ(CountNodes(tree), 6U) << "an exclude keeps the branch";
    EXPECT_TRUE(tree.Delete(Rule("include /d/e any")));
    EXPECT_EQ(CountNodes(tree), 4U) << "the branch goes with its last rule";
    EXPECT_TRUE(tree.Delete(Rule("include /a/no/node exact=x"))) << "found at the nearest ancestor";
    EXPECT_EQ(Words(tree), "exclude /a/b/c any");
    tree.Delete("/a/b");
    EXPECT_EQ(CountNodes(tree), 2U) << "waypoints stay";
    EXPECT_FALSE(tree == YSelectionManager());
    tree.Delete("/");
    EXPECT_TRUE(tree == YSelectionManager());
}

TEST(YSelectionManager, FindsTheNearestNode)
{
    const YSelectionManager tree = Tree("include /a/b any; include C:/x any");
    const struct
    {
        const char* path;
        const char* nearest;
        bool found;
    } rows[] = {
        {"", "/", true},      {"/", "/", true},        {"/a", "/a", true},  {"/a/b/c/d", "/a/b", false},
        {"/A/b", "/", false}, {"C:/x", "/C:/x", true}, {"c:/x", "/", false}};
    for (const auto& row : rows) {
        const auto [node, found] = tree.FindNode(row.path, false);
        EXPECT_EQ(node->GetPath().Bytes(), row.nearest) << row.path;
        EXPECT_EQ(found, row.found) << row.path;
    }
    EXPECT_RAISES(tree.FindNode("/a/c", true), ErrorCode::NotFound, "FindNode", "");
}

TEST(YSelectionManager, CopiesMovesAndCompares)
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

TEST(YSelectionManager, TellsItsChanges)
{
    const Testing::LogCapture log({"SelectionBuild"});
    YSelectionManager tree = Tree("include /a/b exact=x; exclude /a/b exact=y");
    tree.Add(Rule("include /a recursive any"));
    tree.Add(Rule("exclude /a recursive any"));
    tree.Add(Rule("include /a any"));
    tree.Delete("/b");
    tree.Delete("/a");
    tree.Delete("/");
    std::vector<std::string> lines;
    const std::regex rule("descriptor: (?!path).*?, m_explicitSelection: 0"), manager("^YSelectionManager: ");
    for (const std::string& line : log.Texts()) // rules print as their class tells
        lines.push_back(std::regex_replace(std::regex_replace(line, rule, "RULE"), manager, ""));
    const std::string added = "YSelectionManager::Add called for: path: ";
    EXPECT_EQ(lines,
              (std::vector<std::string>{
                  added + "/a/b RULE", "Added include path: /a/b RULE", added + "/a/b RULE",
                  "Added exclude path: /a/b RULE", added + "/a RULE",
                  "YSelectionManagerNode: At node for /a/b include descriptor RULE prunes RULE",
                  "Added include path: /a RULE", added + "/a RULE",
                  "YSelectionManagerNode: At node for /a/b exclude descriptor RULE prunes RULE",
                  "Added exclude path: /a RULE", added + "/a RULE",
                  "Not adding redundant descriptor: path: /a RULE",
                  "YSelectionManager::Delete called for: /b", "YSelectionManager::Delete called for: /a",
                  "Erased node: /", "YSelectionManager::Delete called for: /"}));
}

// Deep enough for a recursion to overflow the stack.
TEST(YSelectionManager, HoldsAnyDepth)
{
    std::string deep;
    for (int level = 0; level < 200000; ++level)
        deep += "/d";
    const YPath bottom{YString(std::string_view(deep))};
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
    Krt::YStream printed{YString()};
    printed << *tree.FindNode(bottom, true).first;
    copy.Add("/d", any, YSelectionDescriptor::Recursive, YSelectionDescriptor::Include, true);
    EXPECT_EQ(CountNodes(copy), 2U);
    tree.Delete("/");
    EXPECT_EQ(CountNodes(tree), 1U);
}

// Two writers and six readers. Whatever tree a query meets, the rules about /a/b hold.
TEST(YSelectionManager, AnswersOnManyThreadsWhileItChanges)
{
    const std::string rules = "include /a recursive any; exclude /a/b recursive exact=c";
    YSelectionManager tree = Tree(rules), other = Tree(rules + "; exclude /a/x any");
    const auto repeat = [](auto step) {
        return std::thread([=] {
            for (int i = 0; i < 150; ++i)
                step();
        });
    };
    const auto holds = [](const YSelectionManager& asked) {
        EXPECT_TRUE(asked.IsPathSelected("/a/b/d/e"));
        EXPECT_EQ(asked.GetPathSelectionType("/a/b/c"), YSelectionDescriptor::Exclude);
        EXPECT_EQ(asked.GetIncludeTops("/"), std::set<YPath>{"/a"});
    };
    std::vector<std::thread> threads;
    threads.push_back(repeat([&] {
        tree.Add(Rule("exclude /a/x recursive any"));
        tree.Delete("/a/x");
    }));
    threads.push_back(repeat([&] {
        tree.Swap(other);
        other = tree;
    }));
    for (int reader = 0; reader < 2; ++reader) {
        threads.push_back(repeat([&] { holds(tree); }));
        threads.push_back(repeat([&] { holds(YSelectionManager(tree)); }));
        threads.push_back(repeat([&] {
            EXPECT_TRUE(tree == tree);
            static_cast<void>(tree == other);
            YSelectionManager read;
            read.FromJSON(tree.ToJSON("/"));
            holds(read);
        }));
    }
    for (std::thread& thread : threads)
        thread.join();
    holds(tree);
}

} // namespace
