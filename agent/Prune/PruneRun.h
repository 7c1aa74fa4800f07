// PruneRun: removes what no snapshot needs from a repository.
//
// The steps, of which each is durable before the next one begins:
//   1. read the index and all trees of all snapshots, and plan. What can't be read ends the run here. A copy
//      of a blob is read if it stays and others are to be removed. If it is damaged, another copy stays, and
//      is read.
//   2. list the snapshots again, since a server may have listed too few, and remove packs that no index file
//      names
//   3. save the needed blobs of packs that are repacked in new packs, and their index files
//   4. save index files that replace those with packs that are not kept, and remove these
//   5. remove the packs that are not kept
// Therefore, whenever the run ends, each needed blob is in a pack that the index names, and the index names
// no pack that was removed. What an interrupted run has left is removed by the next one.
//
// With PruneOptions::hasNoFreeSpace, index files without a pack to be kept are removed before step 4, and
// then the packs of these. Only if an index file still can't be saved because the disk is full, a pack of
// step 5 is removed early. The index then names a pack that does not exist and that no snapshot needs.
#pragma once

#include "agent/Prune/PrunePlan.h"
#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/Repository.h"

namespace Agent {

/// Prunes a repository, which the caller has locked exclusively. `onPlan` is called before anything is
/// changed. Raises what ends the run; a failure to read names what can't be read.
void Prune(Repo::Repository& repository, const PruneOptions& options, IWorkObserver& observer,
           const std::function<void(const PruneStatistics& statistics)>& onPlan);

} // namespace Agent
