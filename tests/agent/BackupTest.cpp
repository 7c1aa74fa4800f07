// The entries that a backup takes, and its reports on the others.
#include "testing/RepositoryFixture.h"
#include "testing/SelectionText.h"
#include "testing/Tree.h"

#include <filesystem>
#include <sys/stat.h>
#include <tuple>

using namespace Testing;

namespace {

class BackupProgram : public RepositoryFixture
{
protected:
    BackupProgram() { Create(); }
};

using Paths = std::vector<std::string>;

TEST_F(BackupProgram, NamedPathIsTakenInAnySpelling)
{
    MakeTree(source,
             {Dir("a"), File("a/b", "1"), Dir("c"), File("c/d", "2"), Link("to a", "a"), File("top", "3")});
    const std::tuple<const char*, std::vector<std::string>, Paths> cases[] = {
        {"directory", {"backup", source + "/a"}, {"/a", "/a/b"}},
        {"with dots", {"backup", source + "/c/../a/."}, {"/a", "/a/b"}},
        {"two that overlap", {"backup", source + "/a/b", source + "/a"}, {"/a", "/a/b"}},
        {"file", {"backup", source + "/top"}, {"/top"}},
        {"link itself", {"backup", source + "/to a"}, {"/to a"}},
        {"through a link", {"backup", source + "/to a/"}, {"/a", "/a/b"}},
        {"below a link", {"backup", source + "/to a/b"}, {"/a", "/a/b"}},
    };
    for (const auto& [name, arguments, stored] : cases) {
        Run(0, arguments);
        EXPECT_EQ(Stored(), stored) << name;
    }
}

TEST_F(BackupProgram, JobRulesAreFollowed)
{
    MakeTree(source,
             {Dir("docs"), File("docs/a.txt", "1"), File("docs/b.tmp", "2"), Dir("docs/deep"),
              File("docs/deep/c.tmp", "3"), File("docs/deep/d", "4"), Dir("other"), File("other/e", "5")});
    const std::string docs = source + "/docs";
    const std::string job = directory.Write(
        "job", JobText("include " + docs + " recursive any; exclude " + docs + " recursive glob=*.tmp"));
    const ProgramResult result = Run(0, {"backup", "--job", job, "--verbose"});
    EXPECT_EQ(Stored(), (Paths{"/docs", "/docs/a.txt", "/docs/deep", "/docs/deep/d"}));
    EXPECT_TRUE(Holds(result.output, " 2 excluded"));
    EXPECT_TRUE(Holds(result.errors, source + "/docs/deep/c.tmp"));

    Run(0, {"backup", "--job", job, source + "/other"});
    EXPECT_EQ(Stored(), (Paths{"/docs", "/docs/a.txt", "/docs/deep", "/docs/deep/d", "/other", "/other/e"}));
}

TEST_F(BackupProgram, FileAtPlaceOfRuleIsStored)
{
    MakeTree(source, {Dir("dir"), File("dir/file", "1"), File("dir/more", "2"), Link("link", "dir")});
    const std::string file = " " + source + "/dir/file", dir = " " + source + "/dir",
                      link = " " + source + "/link";
    // Nothing is stored if there are no paths.
    const std::tuple<std::string, Paths, std::string> cases[] = {
        {"include" + file + " recursive any", {"/dir", "/dir/file"}, ""},
        {"include" + file + " glob=*", {"/dir", "/dir/file"}, ""},
        {"include" + dir + " exact=more; include" + file + " any", {"/dir", "/dir/file", "/dir/more"}, ""},
        {"include" + file + " any; exclude" + dir + " exact=file", {}, "excluded: " + source + "/dir/file"},
        {"include" + file + " exact=file", {}, "error: Nothing was selected that could be stored"},
        {"include" + link + " recursive any",
         {"/link"},
         "Warning: " + source + "/link is a link, which is stored"},
    };
    for (const auto& [rules, stored, expected] : cases) {
        SCOPED_TRACE(rules);
        const std::string job = directory.Write("job", JobText(rules));
        const std::size_t before = CountSnapshots();
        EXPECT_TRUE(
            Holds(Run(stored.empty() ? 1 : 0, {"backup", "--verbose", "--job", job}).errors, expected));
        EXPECT_EQ(CountSnapshots() == before, stored.empty());
        EXPECT_TRUE(stored.empty() || Stored() == stored) << ::testing::PrintToString(Stored());
    }
}

TEST_F(BackupProgram, ImplausibleRulesAreReportedFirst)
{
    MakeTree(source, {File("file", "x"), Dir("d"), File("d/x", "x"), Link("link", "d")});
    const std::string include = "include " + source + " recursive any", rule = "; exclude " + source;
    const std::string refused = " contains no usable rules: ", found = ": excludes[0]: ",
                      place = ": includes[0].descriptor";
    // The rules, the text in the document and its replacement, the exit code, and the message.
    const std::tuple<std::string, std::string, std::string, int, std::string> cases[] = {
        {include, "}],", "}],\"exlcudes\":[],", 1, refused + "unknown key 'exlcudes'"},
        {include, "\"path\"", "\"note\":1,\"path\"", 1, refused + "includes[0]: unknown key 'note'"},
        {include, "\"report_", "\"a\":1,\"report_", 1, place + ": unknown key 'a'"},
        {include, "\"pattern", "\"b\":1,\"pattern", 1, place + ".descriptor: unknown key 'b'"},
        {include, "\"excl", "\"includes\":[],\"excl", 1, "Invalid JSON text: duplicate key 'includes'"},
        {include, "\"any\"", "\"some\"", 1,
         place + ".descriptor.match_type: Unknown match type \"some\"; the words are any, "},
        {include, "\"recursive\"", "\"Recursiv\"", 1,
         place + ".recursion_type: bad recursive type value: Recursiv; did you mean 'recursive'?"},
        {include, "\"report_exclude\":true", "\"report_exclude\":\"x\"", 1, place + ".report_exclude: "},
        {include, "[{", "[1,{", 1, refused + "includes[0]: JSON value is no object"},
        {include, "\"/", "\"", 1, refused + "includes[0]: the path is not absolute"},
        {include, "\"/", "\"/../", 1, refused + "includes[0]: the path contains"},
        {include + rule + " glob=docs/*.tmp", "", "", 1,
         refused + "excludes[0]: the pattern contains a slash"},
        {include + rule + " exact=docs/a", "", "", 1, "the pattern contains a slash"},
        {include + rule + " none", "", "", 0, found + "the rule matches no name"},
        {include + rule + " exact=..", "", "", 0, found + "the rule matches no name"},
        {include + rule + " exact=a", "\"exclude\"", "\"include\"", 0, found + "selection_type decides"},
        {include + rule + " exact=a recursive explicit", "", "", 0,
         found + "explicit_selection has no effect"},
        {"include " + source + " exact=file; include " + source + "/flie any", "", "", 0,
         "there is no " + source + "/flie"},
        {"include " + source + " exact=file; include " + source + "/file/x any", "", "", 0,
         "there is no " + source + "/file/x"},
        {"include " + source + " exact=file; include " + source + "/link/x any", "", "", 0,
         source + "/link/x is reached through a symlink"},
        {"include " + source + " exact=file; include " + source + "/file glob=*.x", "", "", 0,
         source + "/file is not a directory, so it contains nothing that matches '*.x'"},
        {"exclude - exact=a; " + include + " explicit", "", "", 0, ""},
    };
    for (const auto& [rules, from, to, exitCode, expected] : cases) {
        SCOPED_TRACE(rules + " " + to);
        std::string text = JobText(rules);
        if (!from.empty())
            text.replace(text.find(from), from.size(), to);
        const std::string errors =
            Run(exitCode, {"backup", "--dry-run", "--job", directory.Write("job", text)}).errors;
        EXPECT_TRUE(expected.empty() ? errors.empty() : bool(Holds(errors, expected))) << errors;
    }
}

TEST_F(BackupProgram, RepositoryIsLeftOut)
{
    MakeTree(source, {File("file", "x")});
    std::filesystem::rename(repository, source + "/repo");
    repository = source + "/repo";
    for (const char* place : {"", "local:"}) {
        const ProgramResult result =
            Run(0, {"backup", source}, {}, {"KBAGENT_REPOSITORY=" + (place + repository)});
        EXPECT_TRUE(Holds(result.errors, repository + " is the repository itself")) << place;
        EXPECT_EQ(Stored(), Paths{"/file"});
    }
    Run(1, {"backup", repository + "/data"});
    EXPECT_EQ(CountSnapshots(), 2u);
}

TEST_F(BackupProgram, PathBelowUnlistableDirectoryIsReached)
{
    MakeTree(source, {Dir("passage"), Dir("passage/open"), File("passage/open/file", "x")});
    GiveToOrdinaryUser();
    chmod((source + "/passage").c_str(), 0311);
    Run(0, {"backup", source + "/passage/open"}, {.user = OrdinaryUser});
    chmod((source + "/passage").c_str(), 0755);
    EXPECT_EQ(Stored(), (Paths{"/passage", "/passage/open", "/passage/open/file"}));
}

} // namespace
