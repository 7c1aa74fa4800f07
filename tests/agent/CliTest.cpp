// What the program tells: text that can't forge a line, exit codes, and output that is never lost unnoticed.
#include "agent/Cli/Command.h"
#include "agent/Run/Text.h"

#include "testing/ProgramFixture.h"

#include <cstdlib>
#include <filesystem>
#include <tuple>

using namespace Agent;
using Testing::RunProgram;

namespace {

TEST(Text, PrintableIsOneLineThatSteersNothing)
{
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"plain", "/a b/c'\"* \u00e9 \u4e2d \U0001f600", "/a b/c'\"* \u00e9 \u4e2d \U0001f600"},
        {"backslash", "a\\nb", "a\\\\nb"},
        {"line ends and tab", "a\nb\rc\td", "a\\nb\\rc\\td"},
        {"terminal sequence", "\x1b[2J\x7f", "\\x1b[2J\\x7f"},
        {"NUL", std::string("a\0b", 3), "a\\x00b"},
        {"control of the second set", "\u009b2J", "\\u009b2J"},
        {"bytes of no character", "\x9b\xff\xc3", "\\x9b\\xff\\xc3"},
        {"overlong", "\xc0\xaf\xe0\x80\xaf", "\\xc0\\xaf\\xe0\\x80\\xaf"},
        {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"beyond the last character", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        {"line separator, reversed text", "\u2028a\u202etxt.exe", "\\u2028a\\u202etxt.exe"},
    };
    for (const auto& [name, text, shown] : cases)
        EXPECT_EQ(Printable(std::string_view(text)), shown) << name;
}

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

TEST_F(Cli, ExitCodesTellTheKindOfEnd)
{
    directory.Write("store/snapshots/9-damaged", "no snapshot");
    const std::string to = directory / "to", inStore = store + "/objects/../new/x";
    // What is told stands in standard output for 0, else in standard error.
    const std::tuple<const char*, std::vector<std::string>, int, const char*> cases[] = {
        {"help", {"--help"}, 0, "Exit codes"},
        {"help of a command", {"list", "--help"}, 0, "--snapshot ID"},
        {"version", {"--version"}, 0, "kbagent 0."},
        {"no command", {}, 2, "kbagent: error: Name a command"},
        {"channels without a log", {"--debug", "FileIo", "list", "--store", store}, 2, "--log"},
        {"log nowhere", {"--log", store + "/x/log", "list", "--store", store}, 1, "Failed to open log: "},
        {"unknown command", {"steal"}, 2, "steal"},
        {"unknown option", {"list", "--store", store, "--bogus\x1b"}, 2, "--bogus\\x1b"},
        {"missing option", {"list"}, 2, "--store is required"},
        {"no store", {"list", "--store", store + "x"}, 1, "There is no store at"},
        {"no snapshot", {"list", "--store", store, "--snapshot", "1"}, 1, "has no snapshot 1"},
        {"damaged snapshot", {"list", "--store", store, "--snapshot", "9"}, 1, "is damaged at offset 0"},
        {"empty path", {"restore", "--store", store, "--to", to, ""}, 2, "is empty"},
        {"option without its value", {"restore", "--store", store, "--to=", to}, 2, "is empty: '--to='"},
        {"name like an option", {"backup", "--store", to, "--", "--odd="}, 3, "--odd=: Failed to stat"},
        {"restore into the store",
         {"restore", "--store", store, "--snapshot", "2", "--to", inStore},
         1,
         "or lies in it"},
        {"restore of a damaged one", {"restore", "--store", store, "--to", to + "/x"}, 1, "is damaged"},
        {"a damaged one", {"list", "--store", store}, 3, "Snapshot 9-damaged is damaged at offset 0"},
    };
    for (const auto& [name, arguments, exitCode, told] : cases) {
        SCOPED_TRACE(name);
        const auto result = RunProgram(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.errors;
        EXPECT_TRUE(Testing::Holds(exitCode == 0 ? result.output : result.errors, told));
    }
    EXPECT_FALSE(std::filesystem::exists(to + "/x")) << "a target for a damaged snapshot";
}

TEST_F(Cli, PathsThatLookLikeListsArePaths)
{
    for (const char* name : {"tree/[a,b]", "tree/{}"}) {
        const std::string other = directory / "other";
        const std::string command = "cd '" + directory.Path() +
                                    "/tree' && '" KBAGENT_PROGRAM "' backup --store '" + other + "' '" +
                                    (name + 5) + "' >/dev/null && '" KBAGENT_PROGRAM "' list --store '" +
                                    other + "' --snapshot latest | grep -qF '" + (directory / name) + "'";
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
    }
}

TEST_F(Cli, LogIsOpenedBeforeTheCommandRuns)
{
    setenv("KBAGENT_CONFIG", (directory / "none.conf").c_str(), 1);
    const auto result = RunProgram({"--log", directory / "${serviceName}.log", "--debug", "General,FileIo",
                                    "backup", "--store", store, directory / "tree"});
    unsetenv("KBAGENT_CONFIG");
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    const std::string log = Testing::ReadFile(directory / "kbagent.log");
    const std::size_t banner = log.find(" General: Startup log flags: General,FileIo\n");
    ASSERT_NE(banner, std::string::npos) << log;
    EXPECT_NE(log.find(" YFile: ", banner), std::string::npos) << log;
}

TEST_F(Cli, OutputThatIsLostIsAFailure)
{
    const std::string list = "'" KBAGENT_PROGRAM "' list --store '" + store + "' --snapshot latest";
    for (const char* where : {">/dev/full", ">&-", "<&- >&- 2>&-"}) {
        const std::string command = list + " 2>/dev/null " + where;
        EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1) << where;
    }
}

} // namespace
