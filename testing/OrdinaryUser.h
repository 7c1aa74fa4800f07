// Checks that need a user without root's rights.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

/// Returns true if the call returns true in a child process that has given up root's rights.
template <class Call>
bool HoldsAsOrdinaryUser(Call call)
{
    constexpr unsigned int nobody = 65534;
    const pid_t child = fork();
    if (child == 0) {
        const bool lowered = geteuid() != 0 || (setgid(nobody) == 0 && setuid(nobody) == 0);
        bool holds = false;
        try {
            holds = lowered && call();
        } catch (...) {
        }
        _exit(holds ? 0 : 1);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace Testing
