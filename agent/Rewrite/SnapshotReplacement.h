// The replacement of a snapshot by one that was rewritten.
#pragma once

#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/Repository.h"

#include <optional>
#include <vector>

namespace Agent {

/// The tag of a snapshot whose old one remains.
constexpr const char* RewriteTag = "rewrite";

/// Returns the one of the existing snapshots that was made from `old` and equals `changed`, but for the tag;
/// null if there is none.
const Repo::StoredSnapshot* FindRewritten(const std::vector<Repo::StoredSnapshot>& existing,
                                          const Repo::Id& old, const Repo::Snapshot& changed);

/// Makes the trees durable that were given to the saver, saves the snapshot, unless `existing` replaces the
/// old one already, and removes the old one if `removesOld` is true. Returns the ID of the one that replaces
/// it. Before each of these steps, the one before is durable. With `onLeft`, the old one is given to it if it
/// can't be removed; otherwise that raises.
Repo::Id ReplaceSnapshot(const Repo::Repository& repository, Repo::BlobSaver& saver, const Repo::Id& old,
                         const Repo::Snapshot& changed, const std::optional<Repo::Id>& existing,
                         bool removesOld, const Repo::FailureVisitor& onLeft = {});

} // namespace Agent
