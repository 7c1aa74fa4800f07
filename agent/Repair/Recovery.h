// The recovery of directories that no snapshot refers to, such as those of snapshots that were removed or
// lost.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/Repository.h"

#include <optional>
#include <vector>

namespace Agent {

/// Reads all trees that the index has, and returns those that neither another tree nor one of the snapshots
/// refers to, sorted. The observer gets a note for each tree that can't be read; it is left out, and the
/// directories in it are found instead. It also gets a note for each directory that is returned although
/// something in it is lost. The index is loaded. Raises InvalidState if the user interrupts.
std::vector<Repo::Id> FindLostRoots(const Repo::Repository& repository,
                                    const std::vector<Repo::StoredSnapshot>& snapshots,
                                    IWorkObserver& observer);

/// Returns false if the directory of snapshots of a local repository is lost.
bool HasPlaceOfSnapshots(const Repo::Repository& repository);

/// Saves the snapshot with a tree that has the given ones as directories, which are named by the digits of
/// their ids, and have the time of the snapshot. Returns its id. The tree is durable before the snapshot is
/// saved. A lost directory of snapshots is created just before: until then, its loss keeps a prune from
/// removing what is to be recovered.
Repo::Id SaveRecovered(const Repo::Repository& repository, const std::vector<Repo::Id>& roots,
                       Repo::Snapshot snapshot);

} // namespace Agent
