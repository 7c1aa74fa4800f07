// HardLinks: recognises the further names of a file during a walk. A file is remembered only until all its
// names have been visited. A file that was written to after its first name was stored counts as another file,
// whose content is read again: the inode may also have been reused for a new file.
#pragma once

#include "agent/Store/Snapshot.h"

#include "Krt/File/Unix/Status.h"

#include <map>

namespace Agent {

class HardLinks
{
public:
    /// What all names of one file share.
    struct File
    {
        unsigned long long group;
        std::optional<Address> content;
        std::optional<unsigned long long> readSize;
        unsigned long long namesToCome;
        unsigned long long size;
        timespec writeTime;
    };

    /// Returns true if further names may exist.
    static bool MayHave(const struct stat& status) { return status.st_nlink > 1 && !S_ISDIR(status.st_mode); }
    /// Returns the file of this status if another name of it was visited, otherwise null. `size` is the size
    /// in the record of the entry.
    const File* Find(const struct stat& status, unsigned long long size) const;
    /// Remembers a file by its first name and returns the number of its group.
    unsigned long long Add(const struct stat& status, unsigned long long size, const EntryFacts& facts);
    /// Records that a further name of a found file was stored.
    void Seen(const struct stat& status);

private:
    std::map<Krt::File::FileId, File> m_files;
    unsigned long long m_groups = 0;
};

} // namespace Agent
