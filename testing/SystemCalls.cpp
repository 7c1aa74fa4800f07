#include "testing/SystemCalls.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
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
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    unsigned long stops = 0;
    int signal = 0;
    for (;;) {
        ptrace(PTRACE_SYSCALL, child, nullptr, signal);
        status = WaitFor(child);
        if (!WIFSTOPPED(status))
            break;
        const bool isCall = WSTOPSIG(status) == SystemCallStop;
        signal = isCall ? 0 : WSTOPSIG(status);
        stops += isCall;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
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
