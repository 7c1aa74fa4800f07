// The repair of an index: it is rebuilt from the packs, as far as it does not fit them.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/Repository.h"

namespace Agent {

/// Replaces index files, so that the index names exactly the packs that exist, with their blobs. The headers
/// of packs are read that the index does not have, or that have another size than the index expects; with
/// `readsAllPacks`, those of all packs. An index file that can't be read is replaced, too. A pack whose
/// header is damaged is given to the observer; the new index has of it what the old one had. The caller has
/// locked the repository exclusively. Whenever this ends, the index has what it had of packs that exist, or
/// more. Returns the number of packs whose headers are damaged.
std::size_t RepairIndex(Repo::Repository& repository, bool readsAllPacks, IWorkObserver& observer);

} // namespace Agent
