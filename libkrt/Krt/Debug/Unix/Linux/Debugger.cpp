#include "Krt/Debug/Debugger.h"

#include "Krt/Util/SystemCall.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <mutex>
#include <string_view>

namespace Krt::Debug {

namespace {

// Allocates no memory: the failed assumption may be that there is some left.
bool IsTraced()
{
    constexpr std::string_view Key = "TracerPid:\t";
    char text[4096];
    const auto file = Util::CallSystem([] { return open("/proc/self/status", O_RDONLY | O_CLOEXEC); });
    if (!file)
        return false;
    const auto size = Util::CallSystem([&] { return read(file.value, text, sizeof text); });
    Util::CallSystem([&] { return close(file.value); });
    const std::string_view status(text, size ? static_cast<std::size_t>(size.value) : 0);
    const std::size_t key = status.find(Key);
    return key != std::string_view::npos && !status.substr(key + Key.size()).starts_with("0\n");
}

} // namespace

// The kernel reports even an ignored signal to a tracer. A debugger stops there; another tracer, such as
// strace, passes the signal on, and its default action would end the process.
void EnterDebugger()
{
    if (!IsTraced())
        return;
    static std::mutex s_mutex; // the action belongs to the whole process
    const std::lock_guard<std::mutex> guard(s_mutex);
    struct sigaction before = {};
    sigaction(SIGTRAP, nullptr, &before);
    const bool endsProcess = (before.sa_flags & SA_SIGINFO) == 0 && before.sa_handler == SIG_DFL;
    if (endsProcess)
        std::signal(SIGTRAP, SIG_IGN);
    std::raise(SIGTRAP);
    if (endsProcess)
        sigaction(SIGTRAP, &before, nullptr);
}

} // namespace Krt::Debug
