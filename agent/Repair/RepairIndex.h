// The repair of an index: it is rebuilt from the packs, as far as it does not fit them.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/Repository.h"

#include <utility>
#include <vector>

namespace Agent {

/// What a repair of the index did.
struct IndexRepairOutcome
{
    std::size_t damaged = 0;   ///< packs whose headers can't be read, with the entries that the index had
    std::size_t unknown = 0;   ///< packs whose headers can't be read, and that the index does not have
    std::size_t missing = 0;   ///< packs that were removed from the index, since they do not exist
    std::size_t lost = 0;      ///< blobs of missing packs that the index does not have any more
    std::size_t keptFiles = 0; ///< damaged index files that stay, since they may have packs that are unknown
    /// Index files that were replaced, but can't be removed, with the reasons.
    std::vector<std::pair<Repo::FileName, Repo::RepositoryError>> left;
};

/// Replaces index files, so that the index names exactly the packs that exist, with their blobs. The headers
/// of packs are read that the index does not have, or that have another size than the index expects; with
/// `readsAllPacks`, those of all packs. What fits the packs is not written again. A pack whose header can't
/// be read is given to the observer; the new index keeps the entries of the old one for it. If an index file
/// can't be removed, the observer gets notes with those that were added. A damaged index file is replaced,
/// unless a pack that exists would then be in no index. The caller has locked the repository exclusively.
/// Whenever this ends, the index has what it had of packs that exist, or more. Raises before any change:
///   - the error of the system if it can't read an index file
///   - InvalidState if no pack of the index exists, and the header of no other pack can be read
IndexRepairOutcome RepairIndex(Repo::Repository& repository, bool readsAllPacks, IWorkObserver& observer);

} // namespace Agent
