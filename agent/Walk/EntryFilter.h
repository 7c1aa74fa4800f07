// EntryFilter: leaves entries out of a walk, in addition to the rules of the job: those that options such as
// --exclude name.
#pragma once

#include "agent/Walk/Patterns.h"

#include "Krt/File/YDirectory.h"

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

class NameList;

/// A file that marks its directory: everything in the directory but the file itself is left out.
struct DirectoryMark
{
    std::string name;
    std::string header; ///< with which the file begins; empty for any file
};

/// The mark of cache directories.
DirectoryMark CacheMark();

struct EntryFilter
{
    Patterns patterns; ///< compared with whole paths
    std::vector<DirectoryMark> marks;
    std::optional<std::uint64_t> largest; ///< bytes of an entry that is not a directory
    bool staysOnFileSystem = false;       ///< does not enter mount points, whatever is mounted there

    /// Returns true if no entry is left out.
    bool IsEmpty() const { return patterns.IsEmpty() && marks.empty() && !largest && !staysOnFileSystem; }
    /// Returns true if an entry can only be judged by its status.
    bool NeedsStatus() const { return largest || staysOnFileSystem; }
    bool IsTooLarge(const struct stat& status) const
    {
        return largest && !S_ISDIR(status.st_mode) && static_cast<std::uint64_t>(status.st_size) > *largest;
    }
    /// Returns the names of the marks that are valid in a directory with these names. A mark that can't be
    /// read, or that must have a header and is not a regular file, is not valid.
    std::vector<std::string> MarksIn(const Krt::File::YDirectory& directory, const NameList& names) const;
};

} // namespace Agent
