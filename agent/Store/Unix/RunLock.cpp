#include "agent/Store/RunLock.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Retry.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Krt::Util::RetryOnInterrupt;
using Krt::Util::YUnxHandle;

namespace {

YUnxHandle OpenLock(const Krt::File::YDirectory& directory, const Krt::YString& name, int flags)
{
    const int descriptor = Krt::Util::MoveAboveStandardStreams(RetryOnInterrupt([&] {
        return openat(directory.GetHandle().Get(), name.CStr(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | flags,
                      S_IRUSR | S_IWUSR);
    }));
    return descriptor < 0 ? YUnxHandle() : YUnxHandle(descriptor, true);
}

bool Lock(const YUnxHandle& file)
{
    return RetryOnInterrupt([&] { return flock(file.Get(), LOCK_EX | LOCK_NB); }) == 0;
}

} // namespace

YUnxHandle CreateRunLock(const Krt::File::YDirectory& directory, const Krt::YString& name)
{
    YUnxHandle file = OpenLock(directory, name, O_CREAT | O_EXCL);
    if (file.IsEmpty())
        KRT_RAISE_OS("Failed to create file: " << name);
    try {
        if (!Lock(file)) {
            if (errno == EWOULDBLOCK)
                return YUnxHandle();
            KRT_RAISE_OS("Failed to lock file: " << name);
        }
        if (Krt::File::Stat(file).st_nlink == 0)
            return YUnxHandle();
        return file;
    } catch (...) {
        unlinkat(directory.GetHandle().Get(), name.CStr(), 0); // else a later run does that
        throw;
    }
}

RunState TakeRunLock(const Krt::File::YDirectory& directory, const Krt::YString& name, YUnxHandle& lock)
{
    YUnxHandle file = OpenLock(directory, name, O_NONBLOCK);
    if (file.IsEmpty())
        return errno == ENOENT ? RunState::Gone : RunState::Alive;
    if (!Lock(file))
        return RunState::Alive;
    lock = std::move(file);
    return RunState::Abandoned;
}

} // namespace Agent
