// Texts of times, exit codes, and reports of lost output.
#include "agent/Cli/Command.h"
#include "agent/Run/Progress.h"
#include "agent/Run/Text.h"

#include "testing/RepositoryFixture.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <sys/resource.h>
#include <tuple>
#include <unistd.h>

using namespace Agent;
using Testing::RunProgram;

namespace {

TEST(Text, TimesOfAllAges)
{
    const std::pair<long long, const char*> cases[] = {
        {0, "1970-01-01T00:00:00Z"},
        {-1, "1969-12-31T23:59:59Z"},
        {4102444800, "2100-01-01T00:00:00Z"},
        {9223372036854775807, "9223372036854775807"},
        {-9223372036854775807, "-9223372036854775807"},
    };
    for (const auto& [seconds, shown] : cases)
        EXPECT_EQ(TimeText(static_cast<unsigned long long>(seconds)), shown);
}

TEST(Progress, LineHasWhatIsKnownAndFits)
{
    constexpr std::uint64_t mebi = 1 << 20;
    const std::string whole = ProgressText({1520, 4811, "files", 602 * mebi, 1946 * mebi}, 4);
    EXPECT_EQ(whole, "[0:04] 30%  1520 / 4811 files, 602.0 MiB / 1.9 GiB, 150.5 MiB/s, 0:08 left");
    EXPECT_EQ(ProgressText({3, 4, "", 0, 0}, 61), "[1:01] 75%  3 / 4, 0:20 left");
    EXPECT_EQ(ProgressText({7, 0, "entries", 0, 0}, 0), "[0:00] 7 entries");
    EXPECT_EQ(ProgressText({5, 4, "files", 9, 8}, 2), "[0:02] 100%  5 / 4 files, 9 B / 8 B, 4 B/s");

    const std::string text = "[0:01] 7 files";
    const std::tuple<const char*, unsigned int, const char*> cases[] = {
        {"/home/ann/x", 0, "[0:01] 7 files  /home/ann/x"},
        {"/home/ann/x", 27, "[0:01] 7 files  /home/ann/x"},
        {"/home/ann/x", 26, "[0:01] 7 files  ...e/ann/x"},
        {"/\u65e5\u672c\u8a9e", 23, "[0:01] 7 files  /\u65e5\u672c\u8a9e"},
        {"/a/\u65e5\u672c\u8a9e", 24, "[0:01] 7 files  ...\u672c\u8a9e"},
        {"/home/ann/x", 18, "[0:01] 7 files"},
        {"", 9, "[0:01] 7 "},
        {"/a\nb", 0, "[0:01] 7 files  /a\\nb"},
    };
    for (const auto& [path, columns, line] : cases)
        EXPECT_EQ(ProgressLine(text, path, columns), line) << columns;
}

TEST(Text, InvisibleCharactersAreEscaped)
{
    const std::tuple<const char*, const char*, const char*> cases[] = {
        // text, for people, in JSON
        {"\u180e", "\\u180e", "\\u180e"},
        {"\u3164", "\\u3164", "\\u3164"},
        {"\u115f\u1160", "\\u115f\\u1160", "\\u115f\\u1160"},
        {"\ufe00\ufe0f", "\\ufe00\\ufe0f", "\\ufe00\\ufe0f"},
        {"\U0001d173", "\\U0001d173", "\\ud834\\udd73"},
        {"\U000e0000\U000e0fff", "\\U000e0000\\U000e0fff", "\\udb40\\udc00\\udb43\\udfff"},
        {"\u00a0\u2003\u2800", "\\u00a0\\u2003\\u2800", "\\u00a0\\u2003\\u2800"},
        {"\u3000\u00a1\ufe10\U0001f600\U000e1000", "\u3000\u00a1\ufe10\U0001f600\U000e1000",
         "\u3000\u00a1\ufe10\U0001f600\U000e1000"},
    };
    for (const auto& [text, shown, inJson] : cases) {
        EXPECT_EQ(Printable(std::string_view(text)), shown);
        EXPECT_EQ(PrintableJson(text), inJson);
    }
}

class Cli : public Testing::RepositoryFixture
{
protected:
    void SetUp() override
    {
        Create();
        directory.Write("tree/[a,b]/file", "content");
        directory.MakeDirectory("tree/{}");
        Run(0, {"backup", directory / "tree"});
    }
};

TEST_F(Cli, ExitCodeDependsOnKindOfFailure)
{
    const std::string badId(64, 'a'), to = directory / "to", none = directory / "none";
    const std::string inside = repository + "/data/../new/x";
    const std::string damaged = directory.Write("damaged.json", "{\"includes\": [");
    const std::string halfRules = directory.Write("half.json", "{\"includes\": []}");
    const std::string noIncludes = directory.Write("none.json", "\xEF\xBB\xBF"
                                                                R"({"includes": [], "excludes": []})");
    const std::string huge = directory.Write("huge.json", "");
    std::filesystem::resize_file(huge, (512u << 20) + 1);
    // The text is in standard output for exit code 0, otherwise in standard error.
    directory.Write("repo/snapshots/" + badId, "no snapshot");
    const std::tuple<const char*, std::vector<std::string>, int, std::string> cases[] = {
        {"help", {"--help"}, 0, "Exit codes"},
        {"help of a command", {"ls", "--help"}, 0, "--recursive"},
        {"version", {"--version"}, 0, "kbagent 0."},
        {"no command", {}, 2, "kbagent: error: Name a command"},
        {"channels without a log", {"--debug", "FileIo", "snapshots"}, 2, "--log"},
        {"log nowhere", {"--log", none + "/log", "snapshots"}, 1, "Failed to open log: "},
        {"unknown command", {"steal"}, 2, "steal"},
        {"unknown option", {"snapshots", "--bogus\x1b"}, 2, "--bogus\\x1b"},
        {"misspelt option", {"snapshots", "--jso"}, 2, " (did you mean --json instead of --jso?)"},
        {"backup's option", {"explain", "-e", "*.o", to}, 2, "'kbagent backup -n -v -v' prints"},
        {"extra letter", {"snapshots", "--jsson"}, 2, " (did you mean --json instead of --jsson?)"},
        {"log after the command", {"snapshots", "--log=x"}, 2, "--log must precede the command"},
        {"missing option", {"restore", "latest"}, 2, "--target is required"},
        {"missing snapshot", {"restore", "-t", to, "/x"}, 2, "as latest"},
        {"empty path", {"restore", "latest", "-t", to, ""}, 2, "is empty"},
        {"option without its value", {"restore", "latest", "--target=", to}, 2, "is empty: '--target='"},
        {"name like an option", {"backup", "--", "--odd="}, 1, "--odd=: Failed to stat"},
        {"into the repository",
         {"restore", "latest", "-t", inside},
         1,
         "is the repository itself or a folder in it"},
        {"restore of a damaged one",
         {"restore", badId, "-t", to + "/x"},
         1,
         repository + "/snapshots/" + badId + ": "},
        {"missing password file", {"key", "add", "--new-password-file", none}, 1, "password: " + none},
        {"duration without a unit", {"check", "--retry-lock", "5"}, 2, "--retry-lock is not a duration"},
        {"two extra arguments", {"check", "--limit-reads", "10"}, 2, "expected: --limit-reads 10\n"},
        {"to a file", {"restore", "latest", "-t", damaged}, 1, damaged},
        {"file as root",
         {"restore", "latest:" + directory / "tree/[a,b]/file", "-t", to},
         1,
         "name it as a PATH after latest:" + directory / "tree/[a,b]/"},
        {"neither path nor job", {"backup"}, 2, "PATH"},
        {"missing job", {"backup", "--job", none}, 1, none},
        {"directory for a job", {"backup", "--job", repository}, 1, "Is a directory"},
        {"job without end", {"backup", "--job", huge}, 1, "is larger than 512 MiB"},
        {"damaged job", {"backup", "--job", damaged}, 1, damaged},
        {"job without excludes", {"backup", "--job", halfRules}, 1, "excludes"},
        {"job without includes", {"backup", "--job", noIncludes}, 1, "includes nothing"},
        {"empty job's name", {"backup", "--job", "", to}, 2, "Argument 3, after --job, is empty"},
        {"way that is missing", {"backup", none + "/file"}, 1, none},
    };
    for (const auto& [name, arguments, exitCode, expected] : cases) {
        SCOPED_TRACE(name);
        const auto result = Run(exitCode, arguments);
        EXPECT_TRUE(Testing::Holds(exitCode == 0 ? result.output : result.errors, expected));
    }
    EXPECT_FALSE(std::filesystem::exists(to + "/x")) << "a target for a damaged snapshot";
}

TEST_F(Cli, PathInBracketsIsOnePath)
{
    const std::string tree = directory / "tree";
    const auto enter = [&] {
        std::filesystem::current_path(tree);
    };
    for (const std::string name : {"[a,b]", "{}"}) {
        Run(0, {"backup", name}, {.prepare = enter});
        EXPECT_EQ(Testing::StoredPaths(Open(), tree).front(), "/" + name);
    }
}

TEST_F(Cli, LogDescribesRun)
{
    setenv("KBAGENT_CONFIG", (directory / "none.conf").c_str(), 1);
    const auto logged = [&](std::vector<std::string> arguments) {
        const std::string file = directory / "kbagent.log";
        std::filesystem::remove(file);
        arguments.insert(arguments.begin(), {"--log", directory / "${serviceName}.log"});
        Run(-1, arguments);
        return Testing::ReadFile(file);
    };
    const std::string missing = directory / "it's\nnot there", tree = directory / "tree";
    const std::string whole = logged({"--debug", "General,FileIo", "backup", tree, missing});
    const std::string broken = logged({"snapshots", "-r", missing});
    unsetenv("KBAGENT_CONFIG");

    // In this order.
    std::size_t at = 0;
    const std::string parts[] = {" General: Startup log flags: General,FileIo\n",
                                 " General: Begin: kbagent --log '" + directory.Path(),
                                 "it'\\\\''s\\nnot there'\n",
                                 " General: Failed: " + missing.substr(0, missing.find('\n')) +
                                     "\\nnot there",
                                 " FileIo: Successfully opened file ",
                                 " 0 excluded, 1 failed\n",
                                 " General: snapshot ",
                                 " General: End: exit code 3\n"};
    for (const std::string& part : parts) {
        at = whole.find(part, at);
        ASSERT_NE(at, std::string::npos) << part << "\n" << whole;
    }
    EXPECT_TRUE(Testing::Holds(broken, " General: Error: "));
    EXPECT_TRUE(Testing::Holds(broken, " General: End: exit code 10\n"));
}

TEST_F(Cli, LogOrConfigurationWithoutEffectCausesWarning)
{
    setenv("KBAGENT_CONFIG", directory.Write("stray.conf", "debugOutput=FileIo\n[configuration]\n").c_str(),
           1);
    const std::string full = directory.Write("full", "");
    // Far above the size of the files that a coverage build writes at its end.
    constexpr std::size_t most = 1 << 30;
    std::filesystem::resize_file(full, most);
    const auto limitFiles = [] {
        const rlimit limit{most, most};
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
    };
    const auto result =
        Run(0, {"--log", full, "--debug", "General, Fileio", "snapshots"}, {.prepare = limitFiles});
    unsetenv("KBAGENT_CONFIG");
    EXPECT_TRUE(Testing::Holds(result.errors, "Warning: the log has no channel 'Fileio'"));
    EXPECT_TRUE(Testing::Holds(result.errors, "Warning: messages that could not be written to the log: "));
    EXPECT_TRUE(Testing::Holds(result.errors, "stray.conf has debugOutput before any section"));
}

TEST_F(Cli, UnusableConfigurationIsReportedBeforeBackup)
{
    const std::string begin = "[configuration]\n", file = directory / "bad.conf";
    for (const std::string text : {"disableXattr", "disableXattr=maybe", "walkIntoUnknownMountPoints="}) {
        setenv("KBAGENT_CONFIG", directory.Write("bad.conf", begin + text + "\n").c_str(), 1);
        const auto result = Run(1, {"backup", directory / "tree"});
        EXPECT_TRUE(Testing::Holds(result.errors, "onfiguration " + file)) << text;
    }
    unsetenv("KBAGENT_CONFIG");
    EXPECT_EQ(CountSnapshots(), 1u);
}

TEST_F(Cli, LostOutputFailsWithoutUndoingWork)
{
    const auto toFull = [] {
        dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
    };
    const auto toClosedPipe = [] {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
    };
    EXPECT_TRUE(Testing::Holds(Run(1, {"snapshots"}, {.prepare = toFull}).errors, "No space left"));
    EXPECT_EQ(Run(141, {"snapshots"}, {.prepare = toClosedPipe}).errors, "");
    const std::string made = " was created, but its summary is lost: Failed to write to standard output: ";
    EXPECT_TRUE(Testing::Holds(Run(3, {"backup", directory / "tree"}, {.prepare = toFull}).errors, made));
    EXPECT_TRUE(
        Testing::Holds(Run(3, {"backup", directory / "tree"}, {.prepare = toClosedPipe}).errors, made));
    EXPECT_EQ(CountSnapshots(), 3u);
    Testing::CreateRepository(directory / "old", password, 1);
    directory.Write("password", password);
    const std::pair<const char*, const char*> changes[] = {
        {"tag --add keep", "The change of tags was made"},
        {"tag --add both --json", "The change of tags was made"},
        {"key add --new-insecure-no-password", " was added"},
        {"key passwd -r old --new-password-file password", " was saved, and the old one removed"},
        {"unlock", "The repository was unlocked"},
        {"migrate upgrade_repo_v2 -r old --json", "The repository was upgraded"},
        {"init -r new", "new was created"},
    };
    for (const auto& [words, done] : changes)
        EXPECT_TRUE(Testing::Holds(Run(3, Testing::Words(words), {.prepare = toFull}).errors,
                                   done + std::string(", but its summary is lost: ")));
    EXPECT_EQ(Open().FindSnapshot("latest").snapshot.tags, (std::vector<std::string>{"keep", "both"}));
    Run(1, "migrate upgrade_repo_v2 -r old");
    const std::string added = Run(0, "key add --json --new-insecure-no-password").output;
    const std::string start = R"({"message_type":"summary","key_id":")";
    EXPECT_EQ(added.substr(0, start.size()), start);
    const std::string id = added.substr(start.size(), 64);
    EXPECT_EQ(Run(0, "key remove --json " + id).output,
              R"({"message_type":"summary","removed_key_id":")" + id + "\"}\n");
    EXPECT_EQ(Run(141, {"backup", "-n", directory / "tree"}, {.prepare = toClosedPipe}).errors, "");
    // Work in several steps is not stopped by it, and prints the rest, or its summary, on standard error.
    for (const auto& prepare : {std::function<void()>(toFull), std::function<void()>(toClosedPipe)}) {
        const auto stored = Run(3, Testing::Words("backup -vv tree"), {.prepare = prepare});
        EXPECT_TRUE(Testing::Holds(stored.errors, "and its summary follows here\n"));
        EXPECT_TRUE(Testing::Holds(stored.errors, " saved\n"));
        const auto restored = Run(3, Testing::Words("restore latest -v -t target"), {.prepare = prepare});
        EXPECT_TRUE(Testing::Holds(restored.errors, "\nSummary: Restored "));
        const auto job = Run(3, Testing::Words("job new job tree --force"), {.prepare = prepare});
        EXPECT_TRUE(Testing::Holds(job.errors, "The job file job was written, but its summary is lost"));
        const auto forgotten =
            Run(3, Testing::Words("forget -g , --keep-last 1 --prune"), {.prepare = prepare});
        for (const char* part : {"The work goes on", "\nremoved snapshot ", "\nremoved ", "\ndone\n"})
            EXPECT_TRUE(Testing::Holds(forgotten.errors, part));
        EXPECT_EQ(CountSnapshots(), 1u);
    }
    const auto copied = Run(3, Testing::Words("copy --from-repo repo -r new"), {.prepare = toFull},
                            {"KBAGENT_FROM_PASSWORD=" + password});
    EXPECT_TRUE(Testing::Holds(copied.errors, "\ncopied: "));
    const auto none = Run(0, Testing::Words("copy --from-repo repo -r new --host none"), {},
                          {"KBAGENT_FROM_PASSWORD=" + password});
    EXPECT_TRUE(Testing::Holds(none.output, "there is no snapshot that the options choose"));
    Run(0, "check");
}

TEST_F(Cli, InterruptEndsListWhoseReaderWaits)
{
    for (int i = 0; i < 1500; ++i)
        directory.Write("tree/" + std::string(100, 'n') + std::to_string(i), "");
    Run(0, {"backup", directory / "tree"});
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t reader = 0;
    const auto toFullPipe = [&] {
        dup2(ends[1], STDOUT_FILENO);
        const pid_t program = getpid();
        reader = fork();
        if (reader != 0)
            return;
        char first;
        if (read(ends[0], &first, 1) == 1)
            kill(program, SIGINT);
        _exit(0);
    };
    const auto result = Run(130, std::vector<std::string>{"ls", "latest"}, {.prepare = toFullPipe});
    EXPECT_TRUE(Testing::Holds(result.errors, "kbagent: error: "));
}

TEST_F(Cli, WrongArgumentNamesHelpOfCommand)
{
    const std::pair<const char*, const char*> actions[] = {
        {"repair foo", "repair: unknown action foo; use index, packs or snapshots\n"},
        {"key foo", "key: unknown action foo; use list, add, remove or passwd\n"},
        {"job foo", "job: unknown action foo; use new, add, remove, show or check\n"},
        {"job", "job: name an action"},
        {"repair", "repair: name an action"},
    };
    for (const auto& [words, text] : actions)
        EXPECT_TRUE(Testing::Holds(Run(2, words).errors, text));
    const auto from = Run(1, Testing::Words("copy --from-repo repo --from-password-file /dev/null"));
    EXPECT_TRUE(Testing::Holds(from.errors, "which --from-insecure-no-password allows"));
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "kbagent"},
        {{"steal"}, "kbagent"},
        {{"backup"}, "kbagent backup"},
        {{"-r", "x", "service", "install"}, "kbagent service install"},
        {{"trust", "--pin", "", "a:1"}, "kbagent trust"},
        {{"restore", "latest"}, "kbagent restore"},
        {{"service", "install", "--bogus"}, "kbagent service install"},
    };
    for (const auto& [arguments, command] : cases) {
        const auto result = RunProgram(arguments);
        EXPECT_TRUE(
            Testing::Holds(result.errors, "\nkbagent: Run '" + command + " --help' for more information.\n"));
    }
}

} // namespace
