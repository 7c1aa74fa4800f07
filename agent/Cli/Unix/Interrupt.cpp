#include "agent/Cli/Interrupt.h"

#include <csignal>
#include <initializer_list>

namespace Agent {

namespace {

volatile std::sig_atomic_t s_interrupted = 0;

void OnSignal(int)
{
    s_interrupted = 1;
}

} // namespace

void CatchInterrupts()
{
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction current;
        // Whoever started the program with a signal ignored, as nohup does, wants it ignored.
        if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler != SIG_IGN)
            sigaction(signal, &action, nullptr);
    }
    // A closed pipe and a limit on the size of files are told by the write that fails.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
}

bool IsInterrupted()
{
    return s_interrupted != 0;
}

} // namespace Agent
