// RestoredLinks: the files of which a restore makes several hard links. The first name of a file gets the
// content, the others become hard links to it. A file is forgotten after its last name.
#pragma once

#include "agent/Restore/EntryMaker.h"
#include "agent/Restore/RestoreItem.h"

#include <map>

namespace Agent {

class RestoredLinks
{
public:
    /// A name of the file will be restored. Returns true if it is the first one.
    bool Plan(const LinkKey& key) { return m_planned.try_emplace(key, 0).second; }
    bool IsPlanned(const LinkKey& key) const { return m_planned.contains(key); }
    /// Returns true if names of the inode with other content were planned.
    bool IsPlannedDifferently(const LinkKey& key) const { return HasOtherContent(m_planned, key); }

    /// The first name of the entry's file that was restored, if there is one. Valid until the next change.
    const LinkedFile* FirstOf(const RestoreItem& item) const;
    /// The name was restored as the first one of its file, which other names follow.
    void NoteFirst(const RestoreItem& item, const Krt::File::FileId& file);
    /// The name was restored, or failed.
    void Count(const RestoreItem& item);

private:
    std::map<LinkKey, std::uint64_t> m_planned; // names that were counted of files that were planned
    std::map<LinkKey, LinkedFile> m_linked;     // files of which names are still to come
};

} // namespace Agent
