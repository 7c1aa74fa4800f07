#include "Krt/Environment/Process.h"

#include "testing/OrdinaryUser.h"
#include "testing/Raises.h"
#include "testing/RunningProgram.h"
#include "testing/TemporaryDirectory.h"

#include <fcntl.h>

#include <csignal>
#include <pthread.h>

using namespace Krt;
using namespace Krt::Environment;

namespace {

int Shell(const YString& script, const YString& argument = "")
{
    return ExecuteProcess("/bin/sh", {"-c", script, "sh", argument});
}

TEST(Process, ArgumentsArriveUnchanged)
{
    const Testing::TemporaryDirectory directory;
    const std::string odd = " a\"b' $HOME `x` \\ \n\xFF* ";
    ASSERT_EQ(ExecuteProcess("/bin/sh", {"-c", "printf %s \"$1\" >\"$2\"", "sh", YString(odd.c_str()),
                                         YString((directory / "out").c_str())}),
              0);
    EXPECT_EQ(Testing::ReadFile(directory / "out"), odd);
    EXPECT_RAISES(Shell("exit 0", YString(std::string_view("a\0b", 3))), ErrorCode::InvalidArgument,
                  "ExecuteProcess", "Argument with a NUL byte in it for /bin/sh");
    EXPECT_RAISES_OS(ExecuteProcess("/missing/program", {}), MessageType::General, ENOENT, "ExecuteProcess",
                     "Failed to run /missing/program");
}

TEST(Process, ChildHasStandardStreamsAndDefaultSignals)
{
    constexpr int open = 77;
    ASSERT_EQ(dup2(STDERR_FILENO, open), open);
    EXPECT_EQ(Shell("test -e /dev/fd/2 && test ! -e /dev/fd/77"), 0);
    close(open);

    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_BLOCK, &blocked, &before);
    const auto ignored = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(Shell("kill -PIPE $$"), 128 + SIGPIPE);
    EXPECT_EQ(Shell("kill -TERM $$"), 128 + SIGTERM);
    std::signal(SIGPIPE, ignored);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

TEST(Process, OrdinaryUserElevates)
{
    std::vector<YString> words;
    const ProcessRunner runner = [&](const File::YPath& program, const std::vector<YString>& arguments) {
        words = arguments;
        words.insert(words.begin(), program);
        return 7;
    };
    using Words = std::vector<YString>;
    const auto runs = [&](bool unattended, const Words& wanted) {
        return ExecuteProcessElevated("/a=b/c", {"-x", "y z"}, unattended, runner) == 7 && words == wanted;
    };
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] {
        return runs(true, {"/usr/bin/sudo", "-n", "--", "/a=b/c", "-x", "y z"}) &&
               runs(false, {"/usr/bin/sudo", "--", "/a=b/c", "-x", "y z"});
    }));
    if (IsRoot()) {
        EXPECT_TRUE(runs(true, {"/a=b/c", "-x", "y z"}));
    }
    EXPECT_EQ(Shell("exit 203"), 203);
}

// No other test has processes of these names.
const std::string s_own = std::to_string(getpid());

TEST(Process, FoundByWholeName)
{
    const std::string asLongAsTheKernelKeeps = (s_own + "-fifteen-bytes").substr(0, 15);
    for (const std::string& name : {s_own + "-short", asLongAsTheKernelKeeps, s_own + "-longer-than-that",
                                    s_own + " a) R (", s_own + "\xC3\xA4\xFF"}) {
        SCOPED_TRACE(name);
        const Testing::RunningProgram sleeper(name);
        const YString found(name.c_str());
        EXPECT_EQ(FindProcessByName(found, false), sleeper.Id());
        const YString cut(name.substr(0, name.size() - 1).c_str());
        const YString cutByKernel(name.substr(0, std::min<std::size_t>(name.size() - 1, 15)).c_str());
        for (const YString& other : {cut, cutByKernel, YString((name + "x").c_str())})
            EXPECT_RAISES(FindProcessByName(other, true), ErrorCode::NotFound, "FindProcessByName",
                          "No process is named " + other.Bytes());
        sleeper.Kill(WNOWAIT);
        EXPECT_RAISES(FindProcessByName(found, true), ErrorCode::NotFound, "FindProcessByName",
                      "No process is named " + name);
    }
}

TEST(Process, FoundThoughMainThreadIsRenamed)
{
    const std::string name = s_own + "-program", link = s_own + "-link";
    const Testing::RunningProgram sleeper(name, link);
    EXPECT_EQ(FindProcessByName(name.c_str(), false), sleeper.Id());
    EXPECT_EQ(FindProcessByName(link.c_str(), false), sleeper.Id());
}

TEST(Process, CallingProcessIsFoundOnRequest)
{
    const YString name = (s_own + "-self").c_str();
    ASSERT_EQ(pthread_setname_np(pthread_self(), name.CStr()), 0);
    EXPECT_EQ(FindProcessByName(name, true), getpid());
    EXPECT_RAISES(FindProcessByName(name, false), ErrorCode::NotFound, "FindProcessByName",
                  "No process is named " + name.Bytes());
}

} // namespace
