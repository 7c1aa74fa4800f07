// The blobs that snapshots need.
#pragma once

#include "agent/Repository/Repository.h"

#include <functional>
#include <vector>

namespace Agent {

/// Reads all trees of the snapshots, each once, with several threads, and returns for each blob of the index
/// whether it is needed. Of a blob with several copies only the first one counts. `report` is called on this
/// thread now and then with the number of trees. Raises
///   - Missing for a blob that the index does not have
///   - Damaged for a tree that can't be read or has an entry that is wrong in itself
///   - InvalidState if the user interrupts
std::vector<bool> FindUsedBlobs(const Repo::Repository& repository,
                                const std::vector<Repo::StoredSnapshot>& snapshots,
                                const std::function<void(std::uint64_t trees)>& report);

} // namespace Agent
