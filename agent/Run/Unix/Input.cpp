#include "agent/Run/Input.h"

#include "agent/Run/AnswerWithin.h"

#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/stat.h>

namespace Agent {

using Krt::Util::OsResult;
using Krt::Util::YUnxHandle;

OsResult<YUnxHandle> OpenInput(const std::string& path)
{
    const auto openNow = [path] {
        return std::make_shared<OsResult<YUnxHandle>>(Krt::Util::OpenHandle(path.c_str(), O_RDONLY));
    };
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode))
        return std::move(*openNow());
    // A signal's handler restarts the call, so another thread waits.
    constexpr std::chrono::hours Year(366 * 24);
    auto opened = AnswerWithin<std::shared_ptr<OsResult<YUnxHandle>>>(Year, openNow);
    KRT_RAISE_UNLESS(opened, Krt::ErrorCode::InvalidState, "The pipe has no writer: " << path.c_str());
    return std::move(**opened);
}

void WaitForInput(int descriptor)
{
    constexpr int MillisecondsBetweenLooks = 100;
    pollfd waited{descriptor, POLLIN, 0};
    do {
        RaiseIfInterrupted();
    } while (poll(&waited, 1, MillisecondsBetweenLooks) <= 0);
}

} // namespace Agent
