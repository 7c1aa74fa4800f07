#include "agent/Restore/RestoredLinks.h"

namespace Agent {

const LinkedFile* RestoredLinks::FirstOf(const RestoreItem& item) const
{
    const auto first = item.link ? m_linked.find(*item.link) : m_linked.end();
    return first != m_linked.end() ? &first->second : nullptr;
}

void RestoredLinks::NoteFirst(const RestoreItem& item, const Krt::File::FileId& file)
{
    if (item.links > 1)
        m_linked.insert_or_assign(*item.link, LinkedFile{item.location, file});
    Count(item);
}

void RestoredLinks::Count(const RestoreItem& item)
{
    const auto planned = m_planned.find(*item.link);
    if (planned == m_planned.end() || ++planned->second < item.links)
        return;
    m_planned.erase(planned);
    m_linked.erase(*item.link);
}

} // namespace Agent
