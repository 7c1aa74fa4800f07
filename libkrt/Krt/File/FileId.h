// FileId: which file a status describes, whatever the name by which it was reached.
#pragma once

#include <compare>

#include <sys/stat.h>

namespace Krt::File {

/// Equal for two statuses of one file. The inode number of a deleted file may be given to a new one.
struct FileId
{
    FileId() = default;
    explicit FileId(const struct stat& status) : device(status.st_dev), inode(status.st_ino) {}

    auto operator<=>(const FileId&) const = default;

    dev_t device = 0;
    ino_t inode = 0;
};

} // namespace Krt::File
