// RestorePlanner: finds out what a restore has to do for an entry of a snapshot: its attributes, whether what
// exists in the target is kept, and which parts of its content are there already.
#pragma once

#include "agent/Restore/RestoreState.h"

#include <set>

namespace Agent {

class RestorePlanner
{
public:
    /// The state outlives this object.
    explicit RestorePlanner(RestoreState& state) : m_state(state) {}

    /// Returns the item of the entry, from which content and target are moved. What damage prevents is the
    /// item's failure. Raises why an entry can't be restored at all.
    std::unique_ptr<RestoreItem> Plan(const std::string& path, Repo::Node& node);
    /// Returns the names in a tree; nothing if it can't be read, which the walk reports.
    std::optional<std::unordered_set<std::string>> NamesIn(const Repo::Id& tree) const;

private:
    void NoteWindows(const Repo::Node& node);
    void NoteForeignOwner();
    void PlanFile(RestoreItem& item, Repo::Node& node);
    bool IsComplete(const RestoreItem& item) const;
    bool FindExisting(RestoreItem& item);
    void PlanExisting(RestoreItem& item);

    RestoreState& m_state;
    std::set<std::string> m_noted; // kinds of attributes of Windows
    bool m_isOwnerNoted = false;
};

} // namespace Agent
