#include "agent/Backup/HardLinks.h"

#include "Krt/File/Unix/Status.h"

namespace Agent {

using Krt::File::FileId;

const HardLinks::File* HardLinks::Find(const struct stat& status, unsigned long long size) const
{
    const auto found = m_files.find(FileId(status));
    if (found == m_files.end())
        return nullptr;
    const File& file = found->second;
    const timespec& writeTime = Krt::File::WriteTime(status);
    const bool isUnchanged = file.size == size && file.writeTime.tv_sec == writeTime.tv_sec &&
                             file.writeTime.tv_nsec == writeTime.tv_nsec;
    return isUnchanged ? &file : nullptr;
}

unsigned long long HardLinks::Add(const struct stat& status, unsigned long long size, const EntryFacts& facts)
{
    const File file{.group = ++m_groups,
                    .content = facts.content,
                    .readSize = facts.readSize,
                    .namesToCome = status.st_nlink - 1u,
                    .size = size,
                    .writeTime = Krt::File::WriteTime(status)};
    m_files.insert_or_assign(FileId(status), file);
    return file.group;
}

void HardLinks::Seen(const struct stat& status)
{
    const auto found = m_files.find(FileId(status));
    if (found != m_files.end() && --found->second.namesToCome == 0)
        m_files.erase(found);
}

} // namespace Agent
