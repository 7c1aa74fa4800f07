// kbagent job: files that are made of paths and patterns, and mistakes in files.
#include "testing/RepositoryFixture.h"
#include "testing/SelectionText.h"
#include "testing/Tree.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <fstream>
#include <sys/stat.h>

using namespace Testing;
using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using List = std::vector<std::string>;

namespace {

class JobCommand : public RepositoryFixture
{
protected:
    void Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(directory / name, std::ios::binary) << text;
    }
    ProgramResult Job(int exitCode, List arguments) const
    {
        arguments.insert(arguments.begin(), "job");
        return Run(exitCode, arguments);
    }
    List StoredByJob() const
    {
        Run(0, "backup --job job");
        return Stored();
    }
    mode_t ModeOf(const std::string& name) const
    {
        struct stat status = {};
        EXPECT_EQ(stat((directory / name).c_str(), &status), 0);
        return status.st_mode & 07777;
    }
};

TEST_F(JobCommand, ConvertsPatternsToRulesOfTheSameMeaning)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    Create();
    MakeTree(source, {Dir("a"), Dir("a/b"), File("a/b/x.tmp", ""), File("a/b/y", ""), File("a/X.TMP", ""),
                      Dir("cache"), File("cache/z", ""), Dir("a/cache"), File("a/cache/z", ""),
                      File("a/*", ""), File("a/[z]", ""), File("a/\\b", ""), File("x.tmp", "")});
    const std::string a = source + "/a";
    for (const List& options : std::vector<List>{{"--exclude", "*.tmp"},
                                                 {"--exclude", "cache"},
                                                 {"--exclude", a + "/*.tmp"},
                                                 {"--exclude", a + "/"},
                                                 {"--exclude", a + "/**/*.tmp"},
                                                 {"--exclude", "**/cache"},
                                                 {"--exclude", source + "/**/**/z"},
                                                 {"--exclude", "\\*"},
                                                 {"--exclude", "\\[?]"},
                                                 {"--exclude", "\\\\b"},
                                                 {"--exclude", "?"},
                                                 {"--exclude", source + "/*"},
                                                 {"--iexclude", "X.tmp"}}) {
        Restic("backup -q " + source + " '" + options[0] + "' '" + options[1] + "'");
        const List theirs = Stored();
        Job(0, {"new", "job", source, "--force", options[0], options[1]});
        EXPECT_EQ(StoredByJob(), theirs) << options[1];
    }
    // A PATH of a job is explicit, so an exclude that matches it leaves its entries alone.
    const ProgramResult excluded = Run(0, {"backup", a, "--exclude", "a"});
    EXPECT_TRUE(Holds(excluded.errors, "Warning: " + a + " matches an exclude pattern"));
    EXPECT_EQ(Stored(), List{"/a"});
    EXPECT_EQ(Run(0, {"backup", a + "/X.TMP", "--exclude", "*.TMP"}).errors, "");
    Job(0, {"new", "job", a, "--force", "--exclude", "a"});
    EXPECT_EQ(std::ranges::count(StoredByJob(), "/a/b/y"), 1);
    Write("patterns", "*.tmp\n\n# c\n!y\ndocs/*.tmp\n/a/*/b\n[a-z]\n\\**\n/\n**\n  /x/**/y \n");
    const ProgramResult result = Job(3, {"new", "job2", source, "--exclude-file", "patterns"});
    for (const char* const part : {"patterns:4: ", "patterns:5: ", "patterns:6: ", "patterns:7: ",
                                   "patterns:8: ", "patterns:9: ", "patterns:10: "})
        EXPECT_TRUE(Holds(result.errors, part));
    EXPECT_TRUE(Holds(result.output, "job2: 2 includes, 2 excludes\n"));
    EXPECT_TRUE(Holds(Job(3, {"add", "job2", "--exclude", "source/a/f"}).errors,
                      "its directory; did you mean " + a + "/f?\n"));
    for (const char* const pattern : {"/A/b", "\xC3\xA4"})
        Job(3, {"add", "job2", "--iexclude", pattern});
}

TEST_F(JobCommand, ChangesFilesAtOnce)
{
    Create();
    MakeTree(source, {Dir("a"), File("a/f", ""), Dir("b"), File("b/f", ""), Dir("empty")});
    Job(0, {"new", "job", source + "/a", "--directory", source + "/empty"});
    EXPECT_EQ(ModeOf("job"), 0644u);
    EXPECT_EQ(StoredByJob(), (List{"/a", "/a/f", "/empty"}));
    const std::string before = ReadFile(directory / "job");
    EXPECT_TRUE(Holds(Job(1, {"new", "job", source}).errors, "exists"));
    EXPECT_EQ(ReadFile(directory / "job"), before);

    chmod((directory / "job").c_str(), 0600);
    symlink("job", (directory / "link").c_str());
    Job(0, {"add", "link", "source/b", "--exclude", source + "/b/f", "--silent"});
    EXPECT_EQ(ModeOf("job"), 0600u);
    EXPECT_TRUE(std::filesystem::is_symlink(directory / "link"));
    EXPECT_EQ(StoredByJob(), (List{"/a", "/a/f", "/b", "/empty"}));
    EXPECT_TRUE(Holds(Job(0, {"show", "job"}).output, "silent"));
    EXPECT_TRUE(Holds(Job(0, {"add", "job", source + "/a"}).errors, "already covered"));
    EXPECT_EQ(StoredByJob(), (List{"/a", "/a/f", "/b", "/empty"}));

    Job(0, {"add", "job", "--exclude", source + "/b/*.tmp"});
    EXPECT_TRUE(
        Holds(Job(0, {"add", "job", "--exclude", "*.tmp"}).errors, "now covered by other rules: exclude"));

    const auto countRules = [this] {
        const std::string shown = Job(0, {"show", "job"}).output;
        return std::count(shown.begin(), shown.end(), '\n') - 1;
    };
    const auto rules = countRules();
    Job(2, {"remove", "job", std::to_string(rules + 1)});
    Job(0, {"remove", "job", std::to_string(rules)}); // the exclude
    EXPECT_EQ(countRules(), rules - 1);
    EXPECT_EQ(StoredByJob(), (List{"/a", "/a/f", "/b", "/b/f", "/empty"}));
    Job(0, {"remove", "job", source});
    Run(1, "backup --job job");
    Job(1, {"remove", "job", "/nothing"});
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path()))
        EXPECT_FALSE(Holds(entry.path().string(), ".kbagent-job"));
}

TEST_F(JobCommand, SnapshotsHavePathsThatJobSelects)
{
    Create();
    MakeTree(source, {Dir("a"), File("a/f", ""), Dir("a-b"), File("a-b/f", ""), Dir("c"), File("c/f", "")});
    const auto pathsOf = [&](const List& arguments, bool hasParent) {
        Run(0, arguments);
        const auto snapshot = Open().FindSnapshot("latest").snapshot;
        EXPECT_EQ(snapshot.parent.has_value(), hasParent) << ::testing::PrintToString(arguments);
        return snapshot.paths;
    };
    const auto pathsOfRules = [&](const std::string& rules, const std::string& path) {
        Write("job", JobText(rules));
        return pathsOf({"backup", "--force", "--job", "job", path}, false);
    };
    const std::string in = "include " + source;
    const std::string a = source + "/a", f = source + "/c/f";
    EXPECT_EQ(pathsOfRules(
                  in + "/a recursive any; " + in + " exact=a; " + in + " exact=a-b; " + in + "/c glob=*", f),
              (List{f, a, a + "-b", source + "/c"}));
    EXPECT_EQ(pathsOfRules(in + " exact=A nocase", a), (List{a, source}));
    EXPECT_EQ(pathsOfRules(in + "/a exact=f; include / exact=etc", a), (List{a, "/etc"}));
    std::string many = in + "/a exact=f; " + in + "/c recursive any";
    for (int i = 0; i < 1001; ++i)
        many += "; " + in + "/c exact=" + std::to_string(i) + " explicit";
    EXPECT_EQ(pathsOfRules(many, f), (List{f, a + "/f", source + "/c"}));
    for (int i = 0; i < 1001; ++i)
        many += "; " + in + "/a exact=" + std::to_string(i);
    EXPECT_EQ(pathsOfRules(many, f), (List{f, a, source + "/c"}));

    Job(0, {"new", "a", a});
    Job(0, {"new", "c", source + "/c"});
    EXPECT_EQ(pathsOf({"backup", "--job", "a"}, false), List{a});
    EXPECT_EQ(pathsOf({"backup", "--job", "c"}, false), List{source + "/c"});
    EXPECT_EQ(pathsOf({"backup", a}, true), List{a});
    EXPECT_EQ(pathsOf({"backup", "--job", "a"}, true), List{a});
}

TEST_F(JobCommand, FindsMistakes)
{
    MakeTree(source, {Dir("ann"), Dir("ann/docs"), File("file", ""), Dir("cache"), Link("to", "ann")});
    Create();
    const std::string isLink = "/to is a link, which is stored itself";
    EXPECT_TRUE(Holds(Job(0, {"new", "linked", "source/to"}).errors, isLink));
    EXPECT_TRUE(Holds(Run(0, "backup -n --job linked").errors, isLink));
    EXPECT_TRUE(Holds(Run(0, "explain --job linked source/to").output, "which is stored itself"));
    struct
    {
        const char* rules; // @ is the source
        int exitCode;
        const char* finding;
    } const rows[] = {
        {"include @ recursive any", 0, "no mistakes found"},
        {"include @ recursive any", 0, "note: @ is stored only with an entry inside"},
        {"include @ recursive any; include @/ann exact=docs", 4,
         "job:3: warning: includes[1]: redundant, because includes[0] (line 2) covers it"},
        {"include @/ann exact=docs; include @ recursive any", 4, "job:2: warning: includes[0]: redundant, "},
        {"include @ any; include @ any", 4, "includes[1]: redundant, because includes[0]"},
        {"include @ recursive any; exclude @ recursive any", 4,
         "includes[0]: contradicts excludes[0] (line 3)"},
        {"include @ any; exclude @ recursive glob=*", 4, "includes[0]: contradicts excludes[0]"},
        {"include @ exact=ann explicit; exclude @ recursive any", 0, "no mistakes found"},
        {"include @ exact=ann explicit; exclude @ exact=ann", 4,
         "excludes[0]: excludes nothing, because includes[0] (line 2) includes that entry"},
        {"include @ glob=a*; include @/ann recursive any; exclude @ glob=ann", 4,
         "includes[1]: selects nothing, because everything in @/ann is excluded by excludes[0] (line 4)"},
        {"include @ exact=file; include @/ann recursive any explicit; silent @ any", 4,
         "includes[1]: never reached: the walk does not enter "},
        {"include @ recursive any; exclude /srv glob=*.tmp", 4,
         "excludes[0]: excludes nothing, because nothing in /srv is included"},
        {"include @ recursive any; exclude @ exact=cahce", 4, "did you mean @/cache?"},
        {"include @ recursive any; exclude @/anm glob=*.tmp", 4, "there is no @/anm; did you mean @/ann?"},
        {"include @ recursive any; exclude @/anm/docs any", 4, "did you mean @/ann?"},
        {"include @ recursive any; exclude @/other recursive any", 0, "no mistakes found"},
        {"include @ recursive any; exclude @ exact=other", 0, "no mistakes found"},
        {"include @ exact=file; include @/anm recursive any", 4, "did you mean @/ann?"},
        {"include @/anm recursive any", 4, "includes[0]: there is no @/anm, "},
        {"include @/file glob=*.x", 4, "includes[0]: @/file is not a directory"},
        {"include @/to recursive any", 4, "includes[0]: @/to is a link, which is stored itself"},
        {"include @/to any; exclude @ exact=to", 4, "includes[0]: selects nothing"},
        {"include @ recursive exact=*.txt", 4, "are literal with match_type exact"},
        {"include @ recursive glob=[ab]", 4, "brackets"},
        {"include @ recursive any; exclude @ recursive glob=docs/*.tmp", 4,
         "job:3: error: excludes[0]: the pattern"},
        {"exclude @ recursive any", 4, "the job includes nothing"},
    };
    const auto element = [](const YString& path, const YSelectionPathDescriptor& rule) {
        YObject object;
        object.Set<YString>("path", path);
        object.Set<YObject>("descriptor", rule.YSelectionDescriptor::ToJSON());
        return YValue::FromObject(std::move(object)).Stringify(true).Bytes();
    };
    for (const auto& row : rows) {
        const auto expand = [this](std::string text) {
            for (std::size_t at = 0; (at = text.find('@', at)) != text.npos; at += source.size())
                text.replace(at, 1, source);
            return text;
        };
        std::string arrays[2];
        std::string rest = expand(row.rules) + "; ";
        for (std::size_t end; (end = rest.find("; ")) != rest.npos; rest.erase(0, end + 2)) {
            const YSelectionPathDescriptor rule = Rule(rest.substr(0, end));
            std::string& array = arrays[rule.IsInclude() ? 0 : 1];
            array += (array.empty() ? "\n" : ",\n") + element(rule.GetPath(), rule);
        }
        Write("job", "{\"includes\":[" + arrays[0] + "],\"excludes\":[" + arrays[1] + "]}");
        const std::string output = Job(row.exitCode, {"check", "job"}).output;
        EXPECT_TRUE(Holds(output, expand(row.finding))) << row.rules;
        for (const char* const noDirectory : {"/anm is stored only", "/file is stored only"})
            EXPECT_FALSE(Holds(output, noDirectory)) << row.rules;
    }
    Write("job",
          "{\"includes\":[\n" + element("ann", Rule("include /ann recursive any")) + "],\"excludes\":[]}");
    EXPECT_TRUE(
        Holds(Job(4, {"check", "job"}).output, "job:2: error: includes[0]: the path is not absolute"));
    Write("job", "{\"includes\":[],\n\"excludes\":[{\"pth\":\"/\"}]}");
    EXPECT_TRUE(Holds(Job(4, {"check", "job", "--json"}).output, R"("level":"error","line":2,)"));
    EXPECT_TRUE(Holds(Job(4, {"check", "job"}).output, "did you mean 'path'?"));
}

} // namespace
