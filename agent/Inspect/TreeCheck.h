// The checks of trees: that all that snapshots refer to exists and can be read, and which entries of which
// snapshots damage touches.
#pragma once

#include "agent/Inspect/RepositoryCheck.h"

namespace Agent {

/// Reads all trees of the snapshots, each once, with several threads. Reports trees and entries that are
/// damaged, and blobs that no index has. `report` is called on this thread now and then.
void CheckTrees(CheckState& state, const std::vector<Repo::StoredSnapshot>& snapshots,
                const std::function<void()>& report);

/// Reports to the observer the entries of each snapshot that can't be restored as they were, at most `most`
/// for each snapshot. Returns true if there are any.
bool FindTouchedEntries(const CheckState& state, const std::vector<Repo::StoredSnapshot>& snapshots,
                        unsigned int most, ICheckObserver& observer);

} // namespace Agent
