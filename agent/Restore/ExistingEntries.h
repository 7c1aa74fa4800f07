// ExistingEntries: what a target already has where a restore writes. It changes nothing.
#pragma once

#include "agent/Repository/Index.h"
#include "agent/Restore/RestoreItem.h"
#include "agent/Restore/RestoreSettings.h"

#include "Krt/File/YDirectory.h"

namespace Agent {

class ExistingEntries
{
public:
    /// The directory of the target outlives this object. It is null if the target does not exist.
    explicit ExistingEntries(const Krt::File::YDirectory* root) : m_root(root) {}

    const Krt::File::YDirectory* GetRoot() const { return m_root; }
    /// Returns the parent directory of the location, null if it does not exist. Valid until the next call.
    /// The directory of the last call is remembered, also if it was missing.
    const Krt::File::YDirectory* ParentOf(const TargetLocation& location);

private:
    const Krt::File::YDirectory* m_root;
    TargetLocation m_location; // of m_parent, which is empty if that does not exist
    std::optional<Krt::File::YDirectory> m_parent;
    bool m_isParentKnown = false;
};

/// Returns true if the user wants to keep what exists, which has this status and is not a directory.
bool IsKept(Overwrite overwrite, const struct stat& existing, const RestoreItem& item);
/// Chooses the action for what exists, whose status the item has. It is not a directory.
void ChooseAction(Overwrite overwrite, RestoreItem& item);
/// Finds the parts of the content that the file that exists has at the same offset, and whether it has all of
/// them. `parent` is the directory of the file.
void CompareContent(const Repo::Index& index, const Krt::File::YDirectory& parent, RestoreItem& item);

} // namespace Agent
