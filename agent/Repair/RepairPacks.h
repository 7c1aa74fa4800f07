// The repair of damaged packs: the blobs that can be read are saved in new packs.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/Repository.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

/// What a repair of packs did.
struct PackRepairOutcome
{
    std::size_t lost = 0;                               ///< blobs that no pack has any more
    std::vector<std::pair<Repo::Id, std::string>> kept; ///< packs that stay, and why
};

/// Saves the blobs of the packs that can be read in new packs, with their index files, then removes the packs
/// from the index, and then the packs themselves. A blob that can't be read there is read in the other packs
/// that have it. Blobs that are lost are given to the observer. A pack whose file is missing is removed from
/// the index. These packs stay, with their index entries:
///   - one of which neither the index nor its header gives any blob
///   - one with a part that the disk can't read in several attempts, unless `removesUnreadable` is true
/// The caller has locked the repository exclusively. Raises Damaged for an index file that can't be read.
PackRepairOutcome RepairPacks(Repo::Repository& repository, const std::set<Repo::Id>& packs,
                              IWorkObserver& observer, bool removesUnreadable = false);

} // namespace Agent
