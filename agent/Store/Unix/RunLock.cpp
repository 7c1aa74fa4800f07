#include "agent/Store/RunLock.h"

#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Krt::Util::CallSystem;
using Krt::Util::OsResult;
using Krt::Util::YUnxHandle;

namespace {

OsResult<YUnxHandle> OpenLock(const Krt::File::YDirectory& directory, const Krt::YString& name, int flags)
{
    return Krt::Util::OwnAboveStandardStreams(CallSystem([&] {
        return openat(directory.GetHandle().Get(), name.CStr(), O_RDWR | O_NOFOLLOW | O_CLOEXEC | flags,
                      S_IRUSR | S_IWUSR);
    }));
}

OsResult<int> Lock(const YUnxHandle& file)
{
    return CallSystem([&] { return flock(file.Get(), LOCK_EX | LOCK_NB); });
}

} // namespace

YUnxHandle CreateRunLock(const Krt::File::YDirectory& directory, const Krt::YString& name)
{
    YUnxHandle file =
        KRT_OS_VALUE(OpenLock(directory, name, O_CREAT | O_EXCL), "Failed to create file: " << name);
    try {
        const auto locked = Lock(file);
        if (locked.error == EWOULDBLOCK)
            return YUnxHandle();
        KRT_OS_VALUE(locked, "Failed to lock file: " << name);
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
    auto file = OpenLock(directory, name, O_NONBLOCK);
    if (file.error == ENOENT)
        return RunState::Gone;
    if (!file || !Lock(file.value))
        return RunState::Alive;
    lock = std::move(file.value);
    return RunState::Abandoned;
}

} // namespace Agent
