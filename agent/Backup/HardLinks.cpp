#include "agent/Backup/HardLinks.h"

namespace Agent {

const HardLinks::File* HardLinks::Find(const struct stat& status) const
{
    const auto found = m_files.find({status.st_dev, status.st_ino});
    return found != m_files.end() ? &found->second : nullptr;
}

unsigned long long HardLinks::Add(const struct stat& status, const SnapshotEntry& entry)
{
    const File file{++m_groups, entry.content, entry.readSize, status.st_nlink - 1};
    m_files.insert_or_assign(Key{status.st_dev, status.st_ino}, file);
    return file.group;
}

void HardLinks::Seen(const struct stat& status)
{
    const auto found = m_files.find({status.st_dev, status.st_ino});
    if (found != m_files.end() && --found->second.namesToCome == 0)
        m_files.erase(found);
}

} // namespace Agent
