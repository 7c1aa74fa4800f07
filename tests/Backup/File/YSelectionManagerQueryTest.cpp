#include "testing/LogCapture.h"
#include "testing/NaiveSelection.h"
#include "testing/Raises.h"
#include "testing/SelectionText.h"

namespace {

using Backup::File::YSelectionManager;
using Krt::ErrorCode;
using Testing::Rule;
using Testing::Tree;
using List = std::vector<std::string>;
using Backup::File::YSelectionDescriptor;
constexpr auto NotSelectedDoNotRecurse = YSelectionDescriptor::NotSelectedDoNotRecurse;
constexpr auto NotSelectedDoRecurse = YSelectionDescriptor::NotSelectedDoRecurse;
constexpr auto Include = YSelectionDescriptor::Include;
constexpr auto Exclude = YSelectionDescriptor::Exclude;

// A plain list of rules is the judge of answers in general, below; these name the rules one by one.
TEST(YSelectionManagerQuery, Answers)
{
    const char* const allOfA = "include /a recursive any";
    const char* const overridden = "exclude /a recursive exact=b; include /a/b exact=c explicit";
    const struct
    {
        const char* name;
        const char* rules;
        const char* path;
        YSelectionManager::SelectionType answer;
    } rows[] = {
        {"nothing at all", "", "/x", NotSelectedDoNotRecurse},
        {"below a recursive include", allOfA, "/a/b/c", Include},
        {"the place of the rule", allOfA, "/a", NotSelectedDoRecurse},
        {"at the root", "include / exact=a", "/a", Include},
        {"reportable", "include /a/b exact=c; exclude /a recursive any", "/a/b/c", Exclude},
        {"silent", "include /a/b exact=c; silent /a recursive any", "/a/b/c", NotSelectedDoNotRecurse},
        {"one level, long path", "include / recursive any; exclude /a exact=b", "/a/b/c", Exclude},
        {"explicit name", overridden, "/a/b/c", Include},
        {"way to the explicit name", overridden, "/a/b", NotSelectedDoRecurse},
        {"explicit directory", "exclude / exact=a; include /a recursive glob=* explicit", "/a/c", Include},
        {"all children, silent", "silent /a any; include /a/b any", "/a", NotSelectedDoNotRecurse},
        {"all children, reported", "exclude /a any; include /a/b any", "/a", NotSelectedDoRecurse},
        {"names by case", "include /a exact=B nocase", "/a/b", Include},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const YSelectionManager tree = Tree(row.rules);
        EXPECT_EQ(tree.GetPathSelectionType(row.path), row.answer);
        const bool enters = row.answer == Include || row.answer == NotSelectedDoRecurse;
        EXPECT_EQ(tree.IsPathSelected(row.path), row.answer == Include);
        EXPECT_EQ(tree.IsPathExcluded(row.path), row.answer == Exclude);
        EXPECT_EQ(tree.IsPathNotSelected(row.path), row.answer < Include);
        EXPECT_EQ(tree.IsPathSelectedOrSelectionParent(row.path), enters);
        EXPECT_EQ(tree.ShouldEnumeratePath(row.path), enters);
    }
}

TEST(YSelectionManagerQuery, AnswersInParts)
{
    const YSelectionManager tree = Tree("include /a exact=b explicit; exclude / exact=a; silent /a/c any; "
                                        "include /d/e any; silent /d exact=f");
    const struct
    {
        YSelectionManager::Components path;
        std::string parts;
    } rows[] = {{{"a"}, "exclude reported, below"},
                {{"a", "b"}, "include, explicit"}, // and the exclude of its parent is overridden
                {{"a", "c"}, "exclude reported, children"},
                {{"d"}, "below"},
                {{"d", "e", "x"}, "include"},
                {{"d", "f"}, "exclude"},
                {{"x"}, ""}};
    for (const auto& row : rows) {
        std::string parts;
        const auto add = [&](bool holds, const char* part) {
            if (holds)
                parts += (parts.empty() ? "" : ", ") + std::string(part);
        };
        bool reportable = false;
        const bool isExcluded = tree.PathMatchesExclude(row.path, reportable);
        add(tree.PathMatchesInclude(row.path), "include");
        add(isExcluded, reportable ? "exclude reported" : "exclude");
        add(tree.AllChildrenOfPathAreExcludedNotReportably(row.path), "children");
        add(tree.AnyIncludesApplyBelowPath(row.path), "below");
        add(tree.IsAnyExplicitSelectionBelowComponent(row.path, 0), "explicit");
        EXPECT_EQ(parts, row.parts) << row.path.back().Bytes();
    }
}

TEST(YSelectionManagerQuery, HasNoAnswerAboutTheRoot)
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
}

TEST(YSelectionManagerQuery, TellsHowItDecides)
{
    const std::string noMatch = "No components in path match any exclude; ";
    const std::string noInclude = "Leaf component a matches no includes.; ";
    const std::string someOfRoot =
        "Some children of / may be included or excluded reportably. (did not find a node "
        "for the leaf component of the path); ";
    const std::string ignored =
        " But since that component is explicitly selected this exclude will be ignored.; ";
    const struct
    {
        const char* rules;
        const char* path;
        std::string lines;
    } rows[] = {
        {"include / any", "/a",
         "Leaf component a matches include at / (root); " + noMatch + "Path Include: /a"},
        {"include /a any; exclude / exact=a", "/a/b",
         "Leaf component b matches include at /a checkNonRecursiveDescriptors was set to 1; Component a at "
         "index 0 "
         "matches exclude at / (root)  reportable: 1; Path is Exclude: /a/b"},
        {"include /a recursive glob=c; silent /a exact=b", "/a/b/c",
         "Leaf component c matches include at /a checkNonRecursiveDescriptors was set to 0; Component b at "
         "index 1 "
         "matches exclude at /a reportable: 0; Path is not-reportable exclude: /a/b/c"},
        {"include /a exact=b explicit; exclude / exact=a; silent /a recursive any", "/a/b",
         "Leaf component b matches include at /a checkNonRecursiveDescriptors was set to 1; Component a at "
         "index 0 "
         "matches exclude at / (root) reportable: 1" +
             ignored + "Component b at index 1 matches exclude at /a reportable: 0" + ignored + noMatch +
             "Path Include: /a/b"},
        {"silent / exact=a", "/a",
         noInclude + "Component a at index 0 matches exclude at / (root)  reportable: 0; "
                     "Path NotSelectedDoNotRecurse (not included but matches exclude): /a"},
        {"silent /a any", "/a",
         noInclude + noMatch +
             "All children of /a are not excluded reportably.; "
             "Path NotSelectedDoNotRecurse (all children excluded): /a"},
        {"include /a/b any", "/a",
         noInclude + noMatch +
             "Some children of /a may be included or excluded reportably.; Includes apply below "
             "path because /a has includes at or below it; Path NotSelectedDoRecurse (includes "
             "below path): /a"},
        {"include /b recursive exact=x", "/b/a",
         noInclude + noMatch +
             "Some children of /b may be included or excluded reportably. (did not find a node "
             "for the leaf component of the path); Includes apply below path because /b has "
             "recursive includes; Path NotSelectedDoRecurse (includes below path): /b/a"},
        {"include / recursive exact=x", "/a",
         noInclude + noMatch + someOfRoot +
             "Includes apply below path because / (root) has recursive includes; "
             "Path NotSelectedDoRecurse (includes below path): /a"},
        {"", "/a",
         noInclude + noMatch + someOfRoot +
             "No includes apply below path.; Path NotSelectedDoNotRecurse (fall "
             "through): /a"},
    };
    for (const auto& row : rows) {
        const YSelectionManager tree = Tree(row.rules);
        const Testing::LogCapture log({"SelectionBuild", "SelectionQuery"});
        tree.GetPathSelectionType(row.path);
        const std::string speaker = "YSelectionManager: ";
        std::string lines;
        for (const std::string& line : log.Texts()) {
            EXPECT_TRUE(line.starts_with(speaker)) << line;
            lines += (lines.empty() ? "" : "; ") + line.substr(speaker.size());
        }
        EXPECT_EQ(lines, "GetPathSelectionType called for: " + std::string(row.path) + "; " + row.lines);
    }
}

TEST(YSelectionManagerQuery, AgreesWithThePlainList)
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

TEST(YSelectionManagerQuery, AgreesWithThePlainListWhereManyRulesStand)
{
    Testing::World world{60, 250, {"/", "/a", "/a", "/a/n1"}, {"glob=n1*", "glob=*5", "exact=N7 nocase"}, {}};
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

TEST(YSelectionManagerQuery, AgreesWithThePlainListWhereManyRulesComeLastAtTheRoot)
{
    Testing::World world{60, 120, {"/a", "/a/b", "/a/b/c", "/d", "/d/b"}, {}, {}, 60};
    for (const char* name : {"", "a", "ab", "abc", "cab", "bca", "aa", "ba", "aba", "caba"}) {
        world.patterns.push_back(std::string("exact=x") + name);
        for (const char* glob : {"glob=?", "glob=*", "glob=x*", "glob=x?*"})
            world.patterns.push_back(std::string(glob) + name);
        world.patterns.push_back(std::string("glob=") + name + "* nocase");
        for (const char* place : {"/", "/a/", "/a/b/", "/a/b/c/", "/d/b/", "/a/x/"})
            world.paths.push_back(std::string(place) + "x" + name);
    }
    Testing::CompareWithThePlainList(world);
}

} // namespace
