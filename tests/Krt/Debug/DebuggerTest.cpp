#include "Krt/Debug/Debugger.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

TEST(Debugger, TracerSeesStopAndMayPassSignalOn)
{
    constexpr int NotTraced = 77;
    const pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(NotTraced);
        Krt::Debug::EnterDebugger();
        _exit(std::signal(SIGTRAP, SIG_DFL) == SIG_DFL ? 0 : 1);
    }
    int stops = 0, status = 0;
    while (waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
        stops += WSTOPSIG(status) == SIGTRAP;
        ASSERT_EQ(ptrace(PTRACE_CONT, child, nullptr, WSTOPSIG(status)), 0);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == NotTraced)
        GTEST_SKIP() << "no process may be traced here";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(stops, 1);
}

} // namespace
