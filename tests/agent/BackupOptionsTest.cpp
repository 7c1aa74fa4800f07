// Options of backup that leave entries out, or name them in lists; compared with restic 0.14 on the same
// tree.
#include "testing/MountNamespace.h"
#include "testing/RepositoryFixture.h"
#include "testing/Tree.h"

#include <fcntl.h>
#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Testing;
using List = std::vector<std::string>;

namespace {

class BackupOptions : public RepositoryFixture
{
protected:
    BackupOptions() { Create(); }

    // Both programs make a snapshot with these options, in which "@" is the source. Expects equal paths and
    // excludes.
    void ExpectAsRestic(List options) const
    {
        std::string quoted;
        for (std::string& option : options) {
            if (const std::size_t at = option.find('@'); at != option.npos)
                option.replace(at, 1, source);
            quoted += " '" + option + "'";
        }
        Restic("backup -q" + quoted);
        const List theirs = StoredPaths(Open());
        const List theirExcludes = Open().FindSnapshot("latest").snapshot.excludes;
        options.insert(options.begin(), {"backup", "-q"});
        Run(0, options, {}, {"HERE=" + source, "NOTHING="});
        EXPECT_EQ(StoredPaths(Open()), theirs) << quoted;
        EXPECT_EQ(Open().FindSnapshot("latest").snapshot.excludes, theirExcludes) << quoted;
    }
    void Write(const std::string& name, const std::string& text) const
    {
        std::ofstream(directory / name, std::ios::binary) << text;
    }
};

TEST_F(BackupOptions, StoreWhatResticStores)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    MakeTree(source, {Dir("a"),
                      Dir("a/b"),
                      Dir("a/b/c"),
                      File("a/b/c/x.o", "1"),
                      File("a/b/x.c", "2"),
                      File("a/X.O", "3"),
                      Dir("foo"),
                      File("foo/bar", "4"),
                      Dir("a/foo"),
                      File("a/foo/bar", "5"),
                      File("a/[z]", "6"),
                      File("a/\xC3\xA4", "7"),
                      File("a/~$doc", "8"),
                      File("a/2", "9"),
                      File("a/k", std::string(1024, 'x')),
                      File("a/k1", std::string(1025, 'x')),
                      Link("a/long", std::string(1025, 'x')),
                      Dir("cache"),
                      Dir("cache/sub"),
                      File("cache/sub/y", ""),
                      File("cache/CACHEDIR.TAG", "Signature: 8a477f597d28d172789f06886806bc55\n"),
                      Dir("nocache"),
                      File("nocache/CACHEDIR.TAG", "Signature: 8a477f59"),
                      File("nocache/y", ""),
                      Dir("tagged"),
                      File("tagged/.no", "header"),
                      Dir("tagged/sub"),
                      File("tagged/sub/.skip", ""),
                      File("tagged/sub/z", ""),
                      Dir("both"),
                      File("both/.no", "head"),
                      File("both/.skip", "")});
    Write("patterns", "# x.c\n\n  *.o \t\r\n$HERE/foo\n~$$doc\n$12\n!/$NOTHING/nothing\n");
    Write("negated", "!x.c\n");
    Write("any", "*.O\n");
    Write("globs", "# none\n" + source + "/a/*\n  " + source + "/[ft]*/b?r \n\n" + source + "/\\both\n");
    Write("verbatim", source + "/a/[z]\r\n\n" + source + "/foo\r");
    Write("raw", source + "/a/\xC3\xA4" + std::string(1, '\0') + source + "/cache" + std::string(1, '\0'));
    setenv("HERE", source.c_str(), 1);
    for (const List& options :
         std::vector<List>{{"--exclude", "*.o", "@"},
                           {"-e", "@/a/b", "--exclude=bar", "@"},
                           {"--exclude", "[[]z]", "-e", "?", "@"},
                           {"--exclude", "[fc]*", "--exclude", "!foo", "@"},
                           {"--exclude", "@/**/bar", "@/a", "@/foo"},
                           {"--exclude", "a/**/x.*", "@"},
                           {"--exclude", "a/../cache", "-e", "/..@/both", "-e", "../foo", "@"},
                           {"--iexclude", "*.O", "--iexclude", "FOO/bar", "@"},
                           {"--exclude", "x.*", "--exclude-file", "negated", "@"},
                           {"--exclude-file", "patterns", "@"},
                           {"--iexclude-file", "any", "--exclude", "b/c", "@"},
                           {"--exclude-caches", "@"},
                           {"--exclude-if-present", ".no", "@"},
                           {"--exclude-if-present", ".no:header", "@"},
                           {"--exclude-if-present", ".no", "--exclude-if-present", ".skip", "@"},
                           {"--exclude-larger-than", "1k", "@"},
                           {"--exclude-larger-than", "1025", "@"},
                           {"--files-from", "globs"},
                           {"--files-from", "globs", "--exclude", "x.*", "@/tagged"},
                           {"--files-from-verbatim", "verbatim"},
                           {"--files-from-raw", "raw", "--exclude-caches"}})
        ExpectAsRestic(options);
    unsetenv("HERE");
}

TEST_F(BackupOptions, LeaveMountsOut)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    MakeTree(source, {Dir("m"), Dir("n"), File("f", ""), File("bound", "")});
    MountNamespace::Run([this](const MountNamespace& space) {
        space.Mount("none", source + "/m", "tmpfs");
        space.Mount("none", source + "/n", "tmpfs");
        MountNamespace::Write(source + "/m/inside", "1");
        MountNamespace::Write(source + "/n/inside", "2");
        EXPECT_EQ(mount((source + "/m/inside").c_str(), (source + "/bound").c_str(), "", MS_BIND, ""), 0);
        ExpectAsRestic({"-x", "@"});
        ExpectAsRestic({"--one-file-system", "@", "@/n"});
        EXPECT_EQ(Run(0, {"backup", "-x", source}).errors, "");
    });
}

TEST_F(BackupOptions, NeverFailForWhatIsLeftOut)
{
    MakeTree(source, {File("secret", "1", 0), Dir("locked", 0), File("open", "2")});
    GiveToOrdinaryUser();
    const List options{"backup", "-v", "-e", "secret", "--iexclude", "LOCKED", source};
    const ProgramResult result = Run(0, options, {OrdinaryUser});
    EXPECT_EQ(Stored(), List{"/open"});
    EXPECT_TRUE(Holds(result.errors, "excluded by a pattern: " + source + "/secret\n"));
    EXPECT_TRUE(Holds(result.output, " 2 excluded, 0 failed"));
    chmod((source + "/locked").c_str(), 0755);
    // What the user named is never left out, and its entries are.
    Run(0, {"backup", "-e", "source", "-e", "open", "--exclude-larger-than", "0", source, source + "/open"},
        {OrdinaryUser});
    EXPECT_EQ(Stored(), List{"/open"});
    for (const List& wrong : std::vector<List>{{"-e", "[a", "."},
                                               {"--exclude-larger-than", "1x", "."},
                                               {"--exclude-larger-than", "99999999999t", "."},
                                               {"--exclude-if-present", ":x", "."},
                                               {"--stdin", "."},
                                               {"--stdin", "--stdin-filename", "a/"}}) {
        List arguments{"backup"};
        arguments.insert(arguments.end(), wrong.begin(), wrong.end());
        EXPECT_TRUE(Holds(Run(2, arguments).errors, wrong[0] == "-e" ? "--exclude: " : wrong[0]));
    }
    Write("patterns", "\n\n# c\n[a\n");
    EXPECT_TRUE(Holds(Run(2, "backup --exclude-file patterns .").errors, "patterns:4: "));
    EXPECT_TRUE(Holds(Run(1, "backup --files-from patterns .").errors, "patterns:4: Not a pattern"));
    Write("raw", source);
    Run(1, "backup --files-from-raw raw");
    Write("none", "/nothing/*\n");
    Run(1, "backup --files-from none");
}

TEST_F(BackupOptions, AreCountedByDryRuns)
{
    MakeTree(source, {File("big", std::string(2048, 'x')), File("f", "1"), File("x.o", "234"), Dir("cache"),
                      File("cache/y", "5678")});
    const std::string all = "backup -v --exclude *.o -e cache " + source;
    const std::string output = Run(0, all + " -n").output;
    for (const std::string& line :
         {"new       " + source + "/big (2.0 KiB added)\n",
          std::string("Bytes:     2.0 KiB new, 0 B changed, 0 B unmodified\n"),
          std::string("Left out by options: 1 file or other entry, 3 B, and 1 directory with"),
          "Largest:   2.0 KiB " + source + "/big\nLargest:   1 B " + source + "/f\n"})
        EXPECT_TRUE(Holds(output, line));
    EXPECT_TRUE(Holds(Run(0, all + " -n --json").output,
                      R"("dry_run":true,"bytes_new":2049,"bytes_changed":0,"bytes_unmodified":0,)"
                      R"("left_out_by_rules":{"others":0,"bytes":0,"dirs":0},)"
                      R"("left_out_by_options":{"others":1,"bytes":3,"dirs":1},)"
                      R"("largest":[{"item":")" +
                          source + R"(/big","data_size":2048},{)"));
    EXPECT_EQ(CountSnapshots(), 0u);
    Run(0, all);
    std::ofstream(source + "/f") << "12";
    const std::string again = Run(0, all + " -n").output;
    EXPECT_TRUE(Holds(again, "modified  " + source + "/f (2 B added)\n"));
    const std::string others =
        Run(0, "backup -v -n --exclude-larger-than 1k --exclude-if-present x.o " + source).errors;
    EXPECT_TRUE(Holds(others, "excluded by x.o: " + source + "/f\n"));
    EXPECT_FALSE(Holds(others, source + "/x.o\n"));
    EXPECT_TRUE(Holds(Run(0, "backup -v -n --exclude-larger-than 1k " + source).errors,
                      "excluded by --exclude-larger-than: " + source + "/big\n"));
    EXPECT_FALSE(Holds(again, "/big (")); // unchanged
}

TEST_F(BackupOptions, StoreStandardInput)
{
    const auto store = [this](int exitCode, const std::string& text, const std::string& options) {
        Write("input", text);
        const auto openInput = [] {
            dup2(open("input", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        };
        return Run(exitCode, Words("backup --stdin" + options), {0, openInput});
    };
    std::string large(3 << 20, 'x'); // several chunks
    for (std::size_t i = 0; i < large.size(); i += 1 + i % 7)
        large[i] = static_cast<char>(i * i >> 8);
    for (const std::string& text : {std::string("1"), large}) {
        store(0, text, " --stdin-filename a/b.sql");
        EXPECT_EQ(Run(0, "dump latest /a/b.sql").output, text);
    }
    EXPECT_EQ(Open().FindSnapshot("latest").snapshot.paths, List{"/a/b.sql"});
    store(0, "1", "");
    EXPECT_EQ(StoredPaths(Open()), List{"/stdin"});
    EXPECT_TRUE(Holds(store(1, "", "").errors, "Standard input has no data"));
    EXPECT_EQ(CountSnapshots(), 3u);
    if (HasRestic())
        Restic("check --read-data");
}

} // namespace
