// Texts of times, exit codes, and reports of lost output.
#include "agent/Cli/Command.h"
#include "agent/Run/Text.h"

#include "testing/ProgramFixture.h"
#include "testing/StoreFiles.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
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

class Cli : public Testing::ProgramFixture
{
protected:
    void SetUp() override
    {
        directory.Write("tree/[a,b]/file", "content");
        directory.MakeDirectory("tree/{}");
        Run(0, {"backup", directory / "tree"});
    }
};

TEST_F(Cli, ExitCodeDependsOnKindOfFailure)
{
    directory.Write("store/snapshots/9-damaged", "no snapshot");
    const std::string to = directory / "to", inStore = store + "/objects/../new/x", none = directory / "none";
    const std::string damaged = directory.Write("damaged.json", "{\"includes\": [");
    const std::string halfRules = directory.Write("half.json", "{\"includes\": []}");
    const std::string noIncludes = directory.Write("none.json", "\xEF\xBB\xBF"
                                                                R"({"includes": [], "excludes": []})");
    const std::string huge = directory.Write("huge.json", "");
    std::filesystem::resize_file(huge, (512u << 20) + 1);
    std::filesystem::create_directory(store + "/snapshots/8-directory");
    // The text is in standard output for exit code 0, otherwise in standard error.
    const std::tuple<const char*, std::vector<std::string>, int, std::string> cases[] = {
        {"help", {"--help"}, 0, "Exit codes"},
        {"help of a command", {"list", "--help"}, 0, "--snapshot ID"},
        {"version", {"--version"}, 0, "kbagent 0."},
        {"no command", {}, 2, "kbagent: error: Name a command"},
        {"channels without a log", {"--debug", "FileIo", "list", "--store", store}, 2, "--log"},
        {"log nowhere", {"--log", store + "/x/log", "list", "--store", store}, 1, "Failed to open log: "},
        {"unknown command", {"steal"}, 2, "steal"},
        {"unknown option", {"list", "--store", store, "--bogus\x1b"}, 2, "--bogus\\x1b"},
        {"misspelt option", {"list", "--stor", store}, 2, " (did you mean --store by --stor?)"},
        {"extra letter", {"list", "--store", store, "--jsson"}, 2, " (did you mean --json by --jsson?)"},
        {"log after the command", {"list", "--store", store, "--log=x"}, 2, "--log must precede the command"},
        {"missing option", {"list"}, 2, "--store is required"},
        {"no store", {"list", "--store", store + "x"}, 1, "There is no store at"},
        {"no snapshot", {"list", "--store", store, "--snapshot", "1"}, 1, "has no snapshot 1"},
        {"damaged snapshot", {"list", "--store", store, "--snapshot", "9"}, 1, "is damaged at offset 0"},
        {"unreadable one", {"list", "--store", store, "--snapshot", "8"}, 1, "t 8-directory: Failed to read"},
        {"empty path", {"restore", "--store", store, "--to", to, ""}, 2, "is empty"},
        {"no store", {"restore", "latest", "-t", to, "--snapshot", "2"}, 2, "--snapshot needs --store"},
        {"a store", {"restore", "--store", store, "--to", to, "--delete"}, 2, "--delete can't be given"},
        {"option without its value", {"restore", "--store", store, "--to=", to}, 2, "is empty: '--to='"},
        {"name like an option", {"backup", "--store", to, "--", "--odd="}, 3, "--odd=: Failed to stat"},
        {"into the store", {"restore", "--store", store, "--snapshot=2", "--to", inStore}, 1, "lies in it"},
        {"restore of a damaged one", {"restore", "--store", store, "--to", to + "/x"}, 1, "is damaged"},
        {"to a file", {"restore", "--store", store, "--snapshot=2", "--to", damaged}, 1, "to " + damaged},
        {"neither path nor job", {"backup", "--store", store}, 2, "PATH"},
        {"missing job", {"backup", "--store", store, "--job", none}, 1, none},
        {"directory for a job", {"backup", "--store", store, "--job", store}, 1, "Is a directory"},
        {"job without end", {"backup", "--store", store, "--job", huge}, 1, "is larger than 512 MiB"},
        {"damaged job", {"backup", "--store", store, "--job", damaged}, 1, damaged},
        {"job without excludes", {"backup", "--store", store, "--job", halfRules}, 1, "excludes"},
        {"job without includes", {"backup", "--store", store, "--job", noIncludes}, 1, "includes nothing"},
        {"empty job's name", {"backup", "--store", store, "--job", "", to}, 2, "is empty"},
        {"way that is missing", {"backup", "--store", store, none + "/file"}, 1, none},
        {"a damaged one", {"list", "--store", store}, 3, "Snapshot 9-damaged is damaged at offset 0"},
    };
    for (const auto& [name, arguments, exitCode, expected] : cases) {
        SCOPED_TRACE(name);
        const auto result = RunProgram(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.errors;
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
        EXPECT_EQ(Testing::StoredPaths(store, tree).front(), "/" + name);
    }
}

TEST_F(Cli, LogDescribesRun)
{
    setenv("KBAGENT_CONFIG", (directory / "none.conf").c_str(), 1);
    const auto logged = [&](std::vector<std::string> arguments) {
        const std::string file = directory / "kbagent.log";
        std::filesystem::remove(file);
        arguments.insert(arguments.begin(), {"--log", directory / "${serviceName}.log"});
        RunProgram(arguments);
        return Testing::ReadFile(file);
    };
    const std::string missing = directory / "it's\nnot there", tree = directory / "tree";
    const std::string whole =
        logged({"--debug", "General,FileIo", "backup", "--store", store, tree, missing});
    const std::string broken = logged({"list", "--store", missing});
    unsetenv("KBAGENT_CONFIG");

    // In this order.
    std::size_t at = 0;
    const std::string parts[] = {" General: Startup log flags: General,FileIo\n",
                                 " General: Begin: kbagent --log '" + directory.Path(),
                                 "it'\\\\''s\\nnot there'\n",
                                 " General: Failed: " + missing.substr(0, missing.find('\n')) +
                                     "\\nnot there",
                                 " YFile: ",
                                 " General: snapshot 2",
                                 " General: 0 excluded, 1 failed\n",
                                 " General: End: exit code 3\n"};
    for (const std::string& part : parts) {
        at = whole.find(part, at);
        ASSERT_NE(at, std::string::npos) << part << "\n" << whole;
    }
    EXPECT_TRUE(Testing::Holds(broken, " General: Error: There is no store at "));
    EXPECT_TRUE(Testing::Holds(broken, " General: End: exit code 1\n"));
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
    const auto result = RunProgram({"--log", full, "--debug", "General, Fileio", "list", "--store", store},
                                   {.prepare = limitFiles});
    unsetenv("KBAGENT_CONFIG");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(Testing::Holds(result.errors, "Warning: the log has no channel 'Fileio'"));
    EXPECT_TRUE(Testing::Holds(result.errors, "Warning: messages that could not be written to the log: "));
    EXPECT_TRUE(Testing::Holds(result.errors, "stray.conf has debugOutput before any section"));
}

TEST_F(Cli, UnusableConfigurationIsReportedBeforeBackup)
{
    const std::string begin = "[configuration]\n", file = directory / "bad.conf";
    for (const std::string text : {"disableXattr", "disableXattr=maybe", "walkIntoUnknownMountPoints="}) {
        setenv("KBAGENT_CONFIG", directory.Write("bad.conf", begin + text + "\n").c_str(), 1);
        const auto result = RunProgram({"backup", "--store", store + "2", directory / "tree"});
        EXPECT_EQ(result.exitCode, 1) << text;
        EXPECT_TRUE(Testing::Holds(result.errors, "onfiguration " + file)) << text;
    }
    unsetenv("KBAGENT_CONFIG");
    EXPECT_FALSE(std::filesystem::exists(store + "2"));
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
    EXPECT_TRUE(Testing::Holds(Run(1, {"list"}, {.prepare = toFull}).errors, "No space left"));
    EXPECT_EQ(Run(141, {"list"}, {.prepare = toClosedPipe}).errors, "");
    const std::string made = " was created, but its summary is lost: Failed to write to standard output: ";
    EXPECT_TRUE(Testing::Holds(Run(3, {"backup", directory / "tree"}, {.prepare = toFull}).errors, made));
    EXPECT_TRUE(
        Testing::Holds(Run(3, {"backup", directory / "tree"}, {.prepare = toClosedPipe}).errors, made));
    const std::string listed = Run(0, {"list"}).output;
    EXPECT_EQ(std::count(listed.begin(), listed.end(), '\n'), 3);
    Run(3, {"restore", "--to", target}, {.prepare = toFull});
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
    const auto result = Run(130, {"list", "--snapshot", "latest"}, {.prepare = toFullPipe});
    EXPECT_TRUE(Testing::Holds(result.errors, "kbagent: error: "));
}

TEST_F(Cli, WrongArgumentNamesHelpOfCommand)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "kbagent"},
        {{"steal"}, "kbagent"},
        {{"backup"}, "kbagent backup"},
        {{"-r", "x", "service", "install"}, "kbagent service install"},
        {{"trust", "--pin", "", "a:1"}, "kbagent trust"},
        {{"backup", "--store", store}, "kbagent backup"},
        {{"service", "install", "--bogus"}, "kbagent service install"},
    };
    for (const auto& [arguments, command] : cases) {
        const auto result = RunProgram(arguments);
        EXPECT_TRUE(
            Testing::Holds(result.errors, "\nkbagent: Run '" + command + " --help' for more information.\n"));
    }
}

} // namespace
