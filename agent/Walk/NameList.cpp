#include "agent/Walk/NameList.h"

#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>

namespace Agent {

NameList::NameList(const Krt::File::YDirectory& directory)
{
    directory.VisitEntries([&](const Krt::File::DirectoryEntry& entry) {
        const std::string& name = entry.name.Bytes();
        m_entries.push_back({m_bytes.size(), static_cast<unsigned short>(name.size()), entry.type});
        m_bytes += name;
        return !IsInterrupted();
    });
    KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
    std::sort(m_entries.begin(), m_entries.end(),
              [this](const Entry& a, const Entry& b) { return Text(a) < Text(b); });
}

bool NameList::Contains(std::string_view name) const
{
    const auto at = std::lower_bound(
        m_entries.begin(), m_entries.end(), name,
        [this](const Entry& entry, std::string_view wanted) { return Text(entry) < wanted; });
    return at != m_entries.end() && Text(*at) == name;
}

} // namespace Agent
