#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"

#include <csignal>

namespace Agent {

namespace {

constexpr int Signals[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t s_interrupted = 0; // the signal
volatile std::sig_atomic_t s_isProgressRequested = 0;

void OnSignal(int signal)
{
    s_interrupted = signal;
}

void OnProgressRequest(int)
{
    s_isProgressRequested = 1;
}

// Not SIG_IGN, which child processes would inherit.
void OnHangUp(int) {}

// A signal that was ignored at the start, as by nohup, stays ignored.
void ReplaceHandlerOf(int signal, void (*from)(int), void (*to)(int))
{
    struct sigaction action = {};
    action.sa_handler = to;
    action.sa_flags = SA_RESTART;
    struct sigaction current;
    if (sigaction(signal, nullptr, &current) == 0 && current.sa_handler == from)
        sigaction(signal, &action, nullptr);
}

void ReplaceHandler(void (*from)(int), void (*to)(int))
{
    for (const int signal : Signals)
        ReplaceHandlerOf(signal, from, to);
}

} // namespace

void CatchInterrupts()
{
    ReplaceHandler(SIG_DFL, OnSignal);
    ReplaceHandlerOf(SIGUSR1, SIG_DFL, OnProgressRequest);
    // A write to a closed pipe or beyond the limit on the size of files then fails, which is reported.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    // A parent that ignores it passes that on, and then the status of a child cannot be read.
    std::signal(SIGCHLD, SIG_DFL);
}

EndingOnInterrupts::EndingOnInterrupts()
{
    ReplaceHandler(OnSignal, SIG_DFL);
    if (IsInterrupted())
        std::raise(s_interrupted);
}

EndingOnInterrupts::~EndingOnInterrupts()
{
    ReplaceHandler(SIG_DFL, OnSignal);
}

IgnoringHangUps::IgnoringHangUps()
{
    ReplaceHandlerOf(SIGHUP, OnSignal, OnHangUp);
}

IgnoringHangUps::~IgnoringHangUps()
{
    ReplaceHandlerOf(SIGHUP, OnHangUp, OnSignal);
}

void RaiseIfInterrupted()
{
    KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
}

int InterruptingSignal()
{
    return s_interrupted;
}

bool TakeProgressRequest()
{
    if (s_isProgressRequested == 0)
        return false;
    s_isProgressRequested = 0;
    return true;
}

bool IsInterrupted()
{
    return s_interrupted != 0;
}

} // namespace Agent
