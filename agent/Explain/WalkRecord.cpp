#include "agent/Explain/WalkRecord.h"

#include "agent/Run/Interrupt.h"

#include "Backup/File/Unix/File.h"

#include "Krt/File/File.h"

namespace Agent {

using Krt::File::YPath;

bool MayEnter(const WalkedEntry& entry)
{
    return entry.IsDirectory() &&
           Backup::File::IsFollowableDirectoryFromKrtAttributes(entry.path, Krt::File::AttributeDirectory);
}

WalkRecord::WalkRecord(const Job& job, const std::optional<struct stat>& repository,
                       const std::vector<YPath>& paths)
{
    for (const YPath& path : paths) {
        YPath above = path;
        while (m_wanted.insert(above.Bytes()).second)
            above = above.GetParent();
    }
    Walker walker(job.rules, job.roots, *this);
    walker.Restrict([this](const YPath& path) { return m_wanted.contains(path.Bytes()); });
    if (repository)
        walker.Skip(*repository);
    walker.Run();
    RaiseIfInterrupted();
}

const WalkOutcome* WalkRecord::Find(const YPath& path) const
{
    const auto outcome = m_outcomes.find(path.Bytes());
    return outcome == m_outcomes.end() ? nullptr : &outcome->second;
}

bool WalkRecord::OnSelected(const WalkedEntry& entry)
{
    Of(entry.path).isSelected = true;
    return MayEnter(entry);
}

bool WalkRecord::IsCancelled()
{
    return IsInterrupted();
}

} // namespace Agent
