// HardLinks: recognises the further names of a file during a walk. A file is remembered only while names of
// it are still to come. One that was written to since its first name is taken for another file, whose content
// is read again: its inode may also belong to a new file.
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

    /// Whether further names may exist.
    static bool MayHave(const struct stat& status) { return status.st_nlink > 1 && !S_ISDIR(status.st_mode); }
    /// The file of this status if a name of it was seen; null otherwise. `size` is the one in its
    /// record.
    const File* Find(const struct stat& status, unsigned long long size) const;
    /// Remembers a file by its first name and gives its group.
    unsigned long long Add(const struct stat& status, unsigned long long size, const EntryFacts& facts);
    /// A further name of a found file was stored.
    void Seen(const struct stat& status);

private:
    std::map<Krt::File::FileId, File> m_files;
    unsigned long long m_groups = 0;
};

} // namespace Agent
