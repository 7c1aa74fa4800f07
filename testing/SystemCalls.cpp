#include "testing/SystemCalls.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <set>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

namespace {

constexpr int SystemCallStop = SIGTRAP | 0x80; // with PTRACE_O_TRACESYSGOOD

[[noreturn]] void RunTraced(const std::function<void()>& work)
{
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
        _exit(2);
    raise(SIGSTOP);
    try {
        work();
    } catch (...) {
        _exit(1);
    }
    _exit(0);
}

int WaitFor(pid_t child)
{
    int status = 0;
    if (waitpid(child, &status, 0) != child)
        throw std::runtime_error("the traced child is lost");
    return status;
}

} // namespace

std::optional<unsigned long> CountSystemCalls(const std::function<void()>& work)
{
    const pid_t child = fork();
    if (child == 0)
        RunTraced(work);
    int status = WaitFor(child);
    if (!WIFSTOPPED(status))
        return std::nullopt;
    ptrace(PTRACE_SETOPTIONS, child, nullptr,
           PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
               PTRACE_O_TRACEVFORK);
    ptrace(PTRACE_SYSCALL, child, nullptr, 0);
    unsigned long stops = 0;
    bool isSuccess = false;
    std::set<pid_t> known{child}; // a thread or process begins with a stop
    for (;;) {
        const pid_t stopped = waitpid(-1, &status, __WALL);
        if (stopped < 0 && errno == ECHILD)
            break;
        if (stopped < 0)
            throw std::runtime_error("the traced child is lost");
        if (!WIFSTOPPED(status)) {
            if (stopped == child)
                isSuccess = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            continue;
        }
        const bool isFirst = known.insert(stopped).second;
        const bool isCall = WSTOPSIG(status) == SystemCallStop;
        const bool isEvent = status >> 16 != 0;
        stops += isCall;
        ptrace(PTRACE_SYSCALL, stopped, nullptr, isCall || isEvent || isFirst ? 0 : WSTOPSIG(status));
    }
    if (!isSuccess)
        throw std::runtime_error("the traced work failed");
    return stops / 2; // entry and return
}

bool TakeAwaySystemCall(int number)
{
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(rules)), rules};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

} // namespace Testing
