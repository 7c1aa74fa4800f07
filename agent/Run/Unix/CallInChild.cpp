
#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YUnxHandle.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Agent {

using Krt::Util::CallSystem;
using Krt::Util::YUnxHandle;

namespace {

[[noreturn]] void BeChild(const std::function<int()>& work)
{
    // The child may outlive the program, and the reader of the program's output must not wait for it.
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        close(stream);
    _exit(work());
}

} // namespace

int CallInChild(const std::function<int()>& work)
{
    constexpr int MillisecondsBetweenLooks = 100;
    // The pipe is readable when the child has ended.
    int ends[2];
    if (pipe(ends) != 0)
        return work();
    const YUnxHandle reading(ends[0], true);
    YUnxHandle writing(ends[1], true);
    const pid_t child = fork();
    if (child == 0)
        BeChild(work);
    writing = YUnxHandle();
    if (child < 0)
        return work();
    pollfd waited{reading.Get(), POLLIN, 0};
    while (CallSystem([&] { return poll(&waited, 1, MillisecondsBetweenLooks); }).value == 0)
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
    int status = 0;
    if (!CallSystem([&] { return waitpid(child, &status, 0); }) || !WIFEXITED(status))
        return work();
    return WEXITSTATUS(status);
}

} // namespace Agent
