#include "testing/LogCapture.h"
#include "testing/NaiveSelection.h"
#include "testing/Raises.h"
#include "testing/SelectionText.h"

#include "Backup/File/YSelectionExplanation.h"

#include <array>
#include <regex>

namespace {

using Backup::File::YSelectionManager;
using Krt::ErrorCode;
using Testing::Tree;
using List = std::vector<std::string>;

TEST(YSelectionManagerQuery, RootRaises)
{
    const YSelectionManager tree = Tree("include / recursive any");
    for (const char* root : {"", "/"})
        EXPECT_RAISES(tree.GetPathSelectionType(root), ErrorCode::InvalidArgument, "PathMatchesInclude",
                      "PathMatchesInclude cannot be applied to an empty path");
    EXPECT_RAISES(tree.AnyIncludesApplyBelowPath({}), ErrorCode::InvalidArgument, "AnyIncludesApplyBelowPath",
                  "AnyIncludesApplyBelowPath cannot be applied to an empty path");
    EXPECT_RAISES(tree.IsAnyExplicitSelectionBelowComponent({}, 0), ErrorCode::InvalidArgument,
                  "IsAnyExplicitSelectionBelowComponent",
                  "IsAnyExplicitSelectionBelowComponent cannot be applied to an empty path");
    EXPECT_RAISES(tree.IsAnyExplicitSelectionBelowComponent({"a", "b"}, 2), ErrorCode::InvalidArgument,
                  "IsAnyExplicitSelectionBelowComponent",
                  "atOrBelowIndex out of range atOrBelowIndex: 2 path: ab");
    bool reportable = true;
    EXPECT_FALSE(tree.PathMatchesExclude({}, reportable));
    EXPECT_TRUE(Tree("silent / any").AllChildrenOfPathAreExcludedNotReportably({}));
}

// From the second recursive rule above an unchanged branch on, an index replaces the walk.
TEST(YSelectionManagerQuery, GlobIgnoringCasePrunesByIndex)
{
    EXPECT_EQ(
        Testing::Words(Tree("exclude /a exact=foo; exclude / recursive glob=x*; exclude / recursive glob=y*; "
                            "exclude / recursive glob=FOO nocase")),
        Testing::Words(Tree("exclude / recursive glob=x*; exclude / recursive glob=y*; "
                            "exclude / recursive glob=FOO nocase")));
}

TEST(YSelectionManagerQuery, DecisionsAreLogged)
{
    const auto expect = [](const char* rules, const std::string& path, const std::string& expected) {
        const YSelectionManager tree = Tree(rules);
        const Testing::LogCapture log({"SelectionBuild", "SelectionQuery"});
        tree.GetPathSelectionType(path.c_str());
        const std::string lines =
            std::regex_replace(log.Text(), std::regex("YSelectionManager: ([^\n]*)\n"), "$1; ");
        EXPECT_EQ(lines, "GetPathSelectionType called for: " + path + "; " + expected + path + "; ");
    };
    const std::string leaf =
        "Leaf component b matches include at /a checkNonRecursiveDescriptors was set to 1; ";
    const std::string reported = "Component a at index 0 matches exclude at / (root) reportable: 1";
    const std::string ignored =
        " But since that component is explicitly selected this exclude will be ignored.; ";
    const std::string noMatch = "No components in path match any exclude; ";
    const std::string neither = "Leaf component a matches no includes.; " + noMatch;
    const std::string some = " may be included or excluded reportably.";
    const std::string noNode = some + " (did not find a node for the leaf component of the path); ";
    const std::string below = "; Path NotSelectedDoRecurse (includes below path): ";

    expect("include / any", "/a",
           "Leaf component a matches include at / (root); " + noMatch + "Path Include: ");
    expect("include /a any; exclude / exact=a", "/a/b",
           leaf + "Component a at index 0 matches exclude at / (root)  reportable: 1; Path is Exclude: ");
    expect("include /a recursive glob=c; silent /a exact=b", "/a/b/c",
           "Leaf component c matches include at /a checkNonRecursiveDescriptors was set to 0; "
           "Component b at index 1 matches exclude at /a reportable: 0; Path is not-reportable exclude: ");
    expect("include /a exact=b explicit; exclude / exact=a; silent /a recursive any", "/a/b",
           leaf + reported + ignored + "Component b at index 1 matches exclude at /a reportable: 0" +
               ignored + noMatch + "Path Include: ");
    expect("silent / exact=a", "/a",
           "Leaf component a matches no includes.; "
           "Component a at index 0 matches exclude at / (root)  reportable: 0; "
           "Path NotSelectedDoNotRecurse (not included but matches exclude): ");
    expect("silent /a any", "/a",
           neither + "All children of /a are not excluded reportably.; "
                     "Path NotSelectedDoNotRecurse (all children excluded): ");
    expect("include /a/b any", "/a",
           neither + "Some children of /a" + some +
               "; Includes apply below path because /a has includes at or below it" + below);
    expect("include /b recursive exact=x", "/b/a",
           neither + "Some children of /b" + noNode +
               "Includes apply below path because /b has recursive includes" + below);
    expect("include / recursive exact=x", "/a",
           neither + "Some children of /" + noNode +
               "Includes apply below path because / (root) has recursive includes" + below);
    expect("", "/a",
           neither + "Some children of /" + noNode +
               "No includes apply below path.; "
               "Path NotSelectedDoNotRecurse (fall through): ");
}

// The rules are listed as they are considered, the deciding one marked by "!", further ones by "+".
TEST(YSelectionManagerQuery, ExplanationListsRulesInOrder)
{
    using Backup::File::YSelectionExplanation;
    const auto expect = [](const char* rules, const char* path, const List& expected) {
        constexpr std::array effects = {"includes", "excludes", "overridden", "overrides", "covers", "below"};
        List listed;
        for (const YSelectionExplanation::Rule& rule : Tree(rules).Explain(path).rules)
            listed.push_back((rule.decides     ? "!"
                              : rule.isFurther ? "+"
                                               : "") +
                             std::string(effects.at(static_cast<std::size_t>(rule.effect))) + " " +
                             std::to_string(rule.component) + ": " +
                             Testing::Words(rule.rule.GetPath(), rule.rule));
        EXPECT_EQ(listed, expected);
    };
    expect("include /a recursive any; include /a/b exact=c explicit; exclude /a exact=b; silent / recursive "
           "glob=c*",
           "/a/b/c",
           {"!includes 2: include /a recursive any", "overrides 2: include /a/b exact=c explicit",
            "overridden 2: silent / recursive glob=c*", "overrides 2: include /a/b exact=c explicit",
            "overridden 1: exclude /a exact=b", "+includes 2: include /a/b exact=c explicit"});
    expect("include / recursive any; exclude /a glob=?; silent /a glob=b*; silent /a/b any", "/a/b/c",
           {"includes 2: include / recursive any", "excludes 1: silent /a glob=b*",
            "!excludes 1: exclude /a glob=?", "+excludes 2: silent /a/b any"});
    expect("silent /a any; include /a/b any", "/a", {"!covers 0: silent /a any"});
    expect("include /a/b any; include /a/c any", "/a", {"!below 0: include /a/b any"});
    expect("include /b any", "/a", {});
}

TEST(YSelectionManagerQuery, RandomRulesAgreeWithModel)
{
    List paths, level = {""};
    for (int depth = 0; depth < 4; ++depth) {
        List below;
        for (const std::string& path : level) {
            for (const char* name : {"/a", "/b", "/ab"})
                below.push_back(path + name);
        }
        paths.insert(paths.end(), below.begin(), below.end());
        level = below;
    }
    Testing::CompareWithThePlainList(
        {400,
         9,
         {"/", "/", "/a", "/b", "/a/a", "/a/b", "/b/ab", "/a/b/a", "/a/a/b", "/ab/a/b"},
         {"any", "glob=*", "glob=a*", "glob=?", "exact=a", "exact=b", "exact=ab", "exact=AB nocase"},
         paths});
}

TEST(YSelectionManagerQuery, ManyRulesAtOnePathAgreeWithModel)
{
    Testing::World world{60,
                         250,
                         {"/", "/a", "/a", "/a/n1"},
                         {"glob=n1*", "glob=*5", "glob=*2?*", "glob=*N3* nocase", "exact=N7 nocase",
                          "glob=?*?", "glob=a-longer-NAME* nocase", "glob=*longer?name*", "glob=*ger-name5",
                          "glob=?-LONG* nocase", "glob=*\xFF*", "glob=n\xFF?", "glob="},
                         {}};
    const List names = {"a-longer-name5", "A-longer\xC3\xA9name", "n\xFFx", "n\xC3\xA9",
                        std::string(300, 'n') + "ger-name5"};
    for (const std::string& name : names) {
        world.patterns.push_back("exact=" + name + " nocase");
        for (const char* place : {"/", "/a/", "/a/n1/"})
            world.paths.push_back(place + name);
    }
    for (int i = 0; i < 40; ++i) {
        const std::string name = "n" + std::to_string(i);
        world.patterns.insert(world.patterns.end(), 4, "exact=" + name);
        world.patterns.push_back("glob=?" + name + "*");
        for (const char* place : {"/", "/a/", "/a/n1/", "/a/n15/", "/a/n1/x"})
            world.paths.push_back(place + name);
    }
    world.patterns.push_back("any");
    Testing::CompareWithThePlainList(world);
}

TEST(YSelectionManagerQuery, ManyRulesAddedLastAtRootAgreeWithModel)
{
    Testing::World world{60, 120, {"/a", "/a/b", "/a/b/c", "/d", "/d/b"}, {}, {}, 60};
    for (const char* name : {"", "a", "ab", "abc", "cab", "bca", "aa", "ba", "aba", "caba"}) {
        world.patterns.push_back(std::string("exact=x") + name);
        for (const char* glob : {"glob=?", "glob=*", "glob=x*", "glob=x?*"})
            world.patterns.push_back(std::string(glob) + name);
        world.patterns.push_back(std::string("glob=") + name + "* nocase");
        world.patterns.push_back(std::string("glob=X") + name + " nocase");
        for (const char* place : {"/", "/a/", "/a/b/", "/a/b/c/", "/d/b/", "/a/x/"})
            world.paths.push_back(std::string(place) + "x" + name);
    }
    Testing::CompareWithThePlainList(world);
}

} // namespace
