// The repair of snapshots: what refers to blobs that are lost is removed from their trees.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/Repository.h"

#include <vector>

namespace Agent {

/// How snapshots are repaired.
struct RepairOptions
{
    bool removesOld = false; ///< the snapshot that was repaired
    bool isDryRun = false;   ///< nothing is changed
};

/// Rewrites the trees of the snapshots, as far as something in them is lost:
///   - a file keeps only the blobs that the index has, and its size is that of these
///   - a directory whose tree can't be read becomes empty
///   - an entry that is wrong in itself is removed
/// All other nodes keep all of their members. A snapshot that changes is saved with the id of the old one as
/// its original; then the old one is removed, if that is asked for. A snapshot whose root can't be read has
/// nothing to be saved. The observer gets a note for each change; a tree that is in several places is
/// reported once. The index is loaded, and the caller has locked the repository exclusively. Returns the
/// number of snapshots that are not as they were.
std::size_t RepairSnapshots(const Repo::Repository& repository,
                            const std::vector<Repo::StoredSnapshot>& snapshots, const RepairOptions& options,
                            IWorkObserver& observer);

} // namespace Agent
