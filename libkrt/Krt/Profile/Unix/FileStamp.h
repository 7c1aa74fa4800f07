// What tells one state of a file from another: which file it is, its size and its times.
#pragma once

#include "Krt/Util/SystemCall.h"

#include <sys/types.h>

struct stat;

namespace Krt::Profile {

class FileStamp
{
public:
    FileStamp() = default;
    explicit FileStamp(const struct stat& status);
    /// A symbolic link is followed.
    static Util::OsResult<FileStamp> Of(const char* path);

    /// Whether the times lie at least two seconds back. A younger file could change again within the grain of
    /// its file system's clock, and keep its stamp.
    bool IsSettled() const;
    friend bool operator==(const FileStamp&, const FileStamp&) = default;

private:
    dev_t m_device = 0;
    ino_t m_inode = 0;
    off_t m_size = 0;
    long long m_modified = 0; // nanoseconds since 1970
    long long m_changed = 0;
};

} // namespace Krt::Profile
