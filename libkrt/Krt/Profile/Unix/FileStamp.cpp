#include "Krt/Profile/Unix/FileStamp.h"

#include "Krt/File/Unix/Status.h"
#include "Krt/Util/SystemCall.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>

namespace Krt::Profile {

namespace {

long long Nanoseconds(const timespec& time)
{
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

} // namespace

FileStamp::FileStamp(const struct stat& status)
    : m_device(status.st_dev), m_inode(status.st_ino), m_size(status.st_size),
      m_modified(Nanoseconds(File::WriteTime(status))), m_changed(Nanoseconds(File::ChangeTime(status)))
{}

Util::OsResult<FileStamp> FileStamp::Of(const char* path)
{
    struct stat status;
    if (const int error = Util::CallSystem([&] { return stat(path, &status); }).error)
        return {FileStamp(), error};
    return {FileStamp(status), 0};
}

bool FileStamp::IsSettled() const
{
    using namespace std::chrono;
    const long long now = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
    return std::max(m_modified, m_changed) <= now - nanoseconds(2s).count();
}

} // namespace Krt::Profile
