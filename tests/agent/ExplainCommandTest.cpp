// Checks that explanations agree with backups, and that they name the rule, the mount or the repository that
// keeps an entry out.
#include "agent/Explain/PathExplanation.h"

#include "testing/MountNamespace.h"
#include "testing/RepositoryFixture.h"
#include "testing/SelectionText.h"
#include "testing/Tree.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <filesystem>
#include <tuple>
#include <unistd.h>

using namespace Agent;
using Testing::Holds;
using Testing::ProgramResult;
using List = std::vector<std::string>;

namespace {

// The job of `rules`, in which # is the source directory, with one value per line.
std::string IndentedJob(std::string rules, const std::string& source)
{
    for (std::size_t at = 0; (at = rules.find('#', at)) != std::string::npos;)
        rules.replace(at, 1, source);
    return Krt::JSON::YValue::Parse(Testing::JobText(rules))->Stringify(false).Bytes();
}

class Explain : public Testing::RepositoryFixture
{
protected:
    std::string WriteJob(const std::string& rules) const
    {
        return directory.Write("job.json", IndentedJob(rules, source));
    }
    ProgramResult Call(int exitCode, List arguments) const
    {
        arguments.insert(arguments.begin(), "explain");
        ProgramResult result = Testing::RunProgram(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.output << result.errors;
        return result;
    }
};

TEST_F(Explain, AnswersAreThoseOfBackup)
{
    Create();
    Testing::MakeTree(source,
                      {Testing::Dir("a"), Testing::File("a/x.txt", "1"), Testing::File("a/x.tmp", "2"),
                       Testing::Dir("a/cache"), Testing::File("a/cache/y.txt", "3"), Testing::Dir("b"),
                       Testing::Link("b/link", "../a"), Testing::File("b/x.txt", "4"), Testing::Dir("b/deep"),
                       Testing::File("b/deep/z.txt", "5")});
    for (const char* const rules :
         {"include # recursive any; exclude # recursive glob=*.tmp; silent #/a exact=cache",
          "include # recursive exact=x.txt; include #/b/deep any", "include #/a any; include #/b/link any",
          "include #/a any; silent # exact=a; include #/b/deep recursive any explicit; exclude # exact=b",
          "include # exact=b; include #/a/cache recursive glob=*",
          "include #/b/x.txt any; silent #/b/deep any"}) {
        const std::string jobFile = WriteJob(rules);
        Run(0, {"backup", "--job", jobFile});
        const List stored = Stored();
        const Job job = LoadJob(jobFile, {});
        List paths;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(source))
            paths.push_back(entry.path());
        for (const PathExplanation& explanation : Explainer(job, std::nullopt).Explain(paths)) {
            const std::string path = explanation.asked.substr(source.size());
            // A snapshot also has the directories that lead to what was selected.
            const bool leads = std::ranges::any_of(
                stored, [&](const std::string& other) { return other.starts_with(path + "/"); });
            EXPECT_EQ(explanation.IsStored() || leads, std::ranges::count(stored, path) == 1)
                << rules << ": " << path << " " << ::testing::PrintToString(stored);
        }
    }
}

TEST_F(Explain, TextNamesRulesWithTheirLines)
{
    Testing::MakeTree(source, {Testing::Dir("a"), Testing::File("a/x.tmp", "1"), Testing::Dir("old"),
                               Testing::File("old/x", "2"), Testing::File("A.txt", "3")});
    const std::string job = WriteJob("include # recursive glob=a*; include # recursive exact=x.tmp; "
                                     "exclude # recursive glob=*.tmp; silent #/a glob=x.*");
    struct Case
    {
        const char* path;
        int exitCode;
        List parts;
    };
    for (const auto& [path, exitCode, parts] : std::vector<Case>{
             {"/a/x.tmp",
              4,
              {": not backed up\n  An exclude matches it:\n",
               job + ":33: exclude names like '*.tmp' in " + source + " and below\n    33 | {\n",
               "34 |   \"path\": \"" + source + "\"", "would include it, but excludes take precedence",
               job + ":47: exclude silently names like 'x.*' directly in " + source + "/a\n",
               "would exclude it, too: it matches 'x.tmp'", "The walk starts at " + source}},
             {"/a", 0, {": backed up\n  The walk enters it.\n", job + ":3: include names like 'a*'"}},
             {"/old/x", 4, {"Includes that come close:", "does not match the name 'x'"}},
             {"/A.txt", 4, {"does not match 'A.txt': upper and lower case differ in this rule"}},
             {"/a/x.tmp/y",
              4,
              {"it does not exist", "since the rules keep it out of " + source + "/a/x.tmp"}},
             {"",
              4,
              {": backed up only if an entry in it is\n",
               "applies to the entries in the directory, not to the directory"}},
             {"/../outside", 4, {"No walk of the backup starts there or above."}}}) {
        const std::string output = Call(exitCode, {"--job", job, source + path}).output;
        for (const std::string& part : parts)
            EXPECT_TRUE(Holds(output, part)) << path;
    }
}

TEST_F(Explain, DocumentAndTreeCountWhatIsLeftOut)
{
    Testing::MakeTree(source, {Testing::Dir("a"), Testing::File("a/x.txt", "12345"), Testing::Dir("a/deep"),
                               Testing::File("a/deep/y", "123"), Testing::Dir("cache"),
                               Testing::File("cache/1", "1234567"), Testing::File("cache/2", "1")});
    const std::string inside = directory.MakeDirectory("source/repo");
    const std::string job = WriteJob("include # recursive any; exclude # exact=cache");
    const List arguments = {"--job", job, "-r", inside, "--tree", "--depth", "1", source};
    const std::string tree = Call(4, arguments).output;
    for (const char* part : {"only as the parent of 4 entries, 8 B; left out: 4 entries, 8 B\n", "a/",
                             "  4 entries, 8 B\n", "  excluded, 3 entries, 8 B: exclude the name 'cache' ",
                             "  left out, 1 entry: it is the repository\n"})
        EXPECT_TRUE(Holds(tree, part));
    EXPECT_EQ(std::ranges::count(tree, '\n'), 4) << tree;
    // A start is further down than the tree.
    const std::string above =
        Call(4, {"--start", source + "/a/deep", "--tree", "--depth", "1", source}).output;
    EXPECT_TRUE(Holds(above.substr(above.find('\n')),
                      "  only as the parent of 2 entries, 3 B; a part was not counted\n"));

    const ProgramResult result = Call(4, {"--job", job, "--json", source + "/cache/1", source + "/a"});
    const std::size_t end = result.output.find('\n');
    const auto document = Krt::JSON::YValue::Parse(result.output.substr(0, end));
    const auto& object = document->AsObject();
    const auto& obstacle = object.Get<Krt::JSON::YObject>("obstacle", 0);
    EXPECT_EQ(obstacle.Find("kind", 0)->AsString(), "rules");
    EXPECT_EQ(obstacle.Find("path", 0)->AsString().Bytes(), source + "/cache");
    EXPECT_EQ(object.Find("backed_up", 0)->AsBool(), false);
    // The descriptor is that of the job file, without the path.
    EXPECT_TRUE(Holds(result.output, R"("explicit_selection":false},"array":"excludes")"));
    EXPECT_TRUE(
        Holds(result.output.substr(end), "\"backed_up\":true,\"parent_only\":false,\"entered\":true"));
}

TEST_F(Explain, EntriesThatUserMayNotReadAreNotStored)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can make files that the test may not read";
    std::filesystem::permissions(directory.Path(), std::filesystem::perms(0755));
    Testing::MakeTree(source,
                      {Testing::Dir("closed", 0), Testing::File("closed/x", "1"), Testing::Dir("open"),
                       Testing::File("open/a", "12"), Testing::File("open/z", "345", 0)});
    const auto outputOf = [](const List& arguments) {
        return Testing::RunProgram(arguments, Testing::OrdinaryUser).output;
    };
    const std::string closed = outputOf({"explain", source + "/closed/x"});
    EXPECT_TRUE(Holds(closed, "it can't be examined\n"));
    EXPECT_TRUE(Holds(closed, "Permission denied"));
    const std::string tree = outputOf({"explain", "--tree", source});
    EXPECT_TRUE(Holds(tree, "  3 entries, 2 B; left out: 2 entries, 3 B or more\n"));
    EXPECT_TRUE(Holds(tree, "fails: Permission to read the file is denied\n"));
    const std::string job = WriteJob("include #/closed/x recursive any");
    EXPECT_TRUE(Holds(outputOf({"job", "check", job}), "/closed/x can't be examined by this user"));
}

TEST_F(Explain, EntryAtPlaceOfIncludeNamesThatRule)
{
    Testing::MakeTree(source, {Testing::File("x.txt", "1"), Testing::File("x.tmp", "2")});
    const std::string job = WriteJob("include #/x.txt any; include #/x.tmp any; exclude # glob=*.tmp");
    const std::string taken = Call(0, {"--job", job, source + "/x.txt"}).output;
    EXPECT_TRUE(Holds(taken, "so it is included itself:\n\n  " + job));
    EXPECT_TRUE(Holds(taken, ": include everything directly in " + source + "/x.txt\n"));
    const std::string left = Call(4, {"--job", job, source + "/x.tmp"}).output;
    EXPECT_TRUE(Holds(left, "but an exclude matches it:\n\n  " + job));
    EXPECT_TRUE(Holds(left, ": exclude names like '*.tmp' directly in " + source + "\n"));
    const std::string nothing = Call(4, {"--job", WriteJob("include # recursive none"), source}).output;
    EXPECT_TRUE(Holds(nothing, "One is for entries below it, but matches no name:\n\n  " + job));
}

TEST_F(Explain, UnusableInputIsRefused)
{
    const std::string job = WriteJob("include # recursive any");
    const std::string damaged = directory.Write("damaged.json", "{\"includes\": [");
    for (const auto& [exitCode, reason, arguments] : std::vector<std::tuple<int, std::string, List>>{
             {1, "contains no usable rules: Invalid JSON text", {"--job", damaged, source}},
             {1, "No such file", {"--job", directory / "none.json", source}},
             {1, "Can't resolve", {"--job", job, source + "/none/../x"}},
             {1, "No such file", {"--job", job, "-r", directory / "none", source}},
             {3,
              "/gone: Failed to stat: No such file",
              {"--start", source + "/gone", "--start", source, source}},
             {2, "--tree", {"--job", job, "--depth", "3", source}}})
        EXPECT_TRUE(Holds(Call(exitCode, arguments).errors, reason));

    const std::string name = directory.Write("source/\xFF", "1");
    EXPECT_TRUE(Holds(Call(0, {"--job", job, name}).output, source + "/\\x"));
    const auto document = Krt::JSON::YValue::Parse(Call(0, {"--job", job, "--json", name}).output);
    EXPECT_EQ(document->AsObject().Find("path", 0)->AsString().Bytes(), name);
}

TEST_F(Explain, MountIsNamed)
{
    Testing::MountNamespace::Run([](const Testing::MountNamespace& space) {
        space.Mount("memory", space / "home/mnt", "tmpfs");
        Testing::MountNamespace::Write(space / "home/mnt/x", "1");
        const auto explain = [&](const char* path) {
            return Testing::RunProgram({"explain", "--start", space / "home", space / path}).output;
        };
        const std::string mount = "a mount point of class special (tmpfs, memory)";
        EXPECT_TRUE(Holds(explain("home/mnt/x"), (space / "home/mnt") + " is " + mount));
        EXPECT_TRUE(Holds(explain("home/mnt/x"), "or list " + (space / "home/mnt") + " in Included"));
        EXPECT_TRUE(Holds(explain("home/mnt"), ": backed up without its contents\n"));
        EXPECT_TRUE(Holds(explain("home/mnt"), "it is " + mount));
        const std::string tree =
            Testing::RunProgram({"explain", "--start", space / "home", "--tree", space / "home"}).output;
        EXPECT_TRUE(Holds(tree, "not entered: " + mount + "; its file system has "));
        EXPECT_TRUE(Holds(tree, "a part was not counted"));
    });
}

} // namespace
