// The repair of damaged packs: the blobs that can be read are saved in new packs.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/Repository.h"

#include <set>

namespace Agent {

/// Saves the blobs of the packs that can be read in new packs, with their index files, then removes the packs
/// from the index, and then the packs themselves. Blobs that are lost are given to the observer. A pack whose
/// file is missing is removed from the index. The caller has locked the repository exclusively. Returns the
/// number of blobs that no other pack has. Raises Damaged for an index file that can't be read.
std::size_t RepairPacks(Repo::Repository& repository, const std::set<Repo::Id>& packs,
                        IWorkObserver& observer);

} // namespace Agent
