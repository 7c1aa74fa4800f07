#pragma once

#include "Krt/Util/SystemCall.h"

#include <sys/types.h>

struct stat;

namespace Krt::Profile {

/// A stamp that distinguishes the states of a file: its identity, size and times.
class FileStamp
{
public:
    FileStamp() = default;
    /// The stamp of a status.
    explicit FileStamp(const struct stat& status);
    /// Returns the stamp of the file at `path`. Symlinks are followed.
    static Util::OsResult<FileStamp> Of(const char* path);

    /// Returns true if the times are at least two seconds ago. A younger file could change again within the
    /// resolution of its file system's clock, and keep its stamp.
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
