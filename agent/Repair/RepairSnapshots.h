// The repair of snapshots: what refers to blobs that are lost is removed from their trees.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/Repository.h"

#include <string>
#include <vector>

namespace Agent {

/// How snapshots are repaired.
struct RepairOptions
{
    bool removesOld = false; ///< the snapshot that was repaired
    bool isDryRun = false;   ///< nothing is changed
};

/// A snapshot that remains as it was, although it has lost something; after a repair with removesOld also one
/// that was replaced, but that can't be removed.
struct UnrepairedSnapshot
{
    Repo::Id id;
    std::string reason; ///< not made printable
};

/// What a repair of snapshots has done, or would do.
struct RepairOutcome
{
    std::size_t changed = 0; ///< snapshots that were replaced or removed
    /// A directory became empty, or the root of a snapshot is lost. Directories below it may be left that no
    /// snapshot refers to.
    bool losesDirectories = false;
    std::vector<UnrepairedSnapshot> failed;
};

/// Returns why nothing can be said to be lost yet, with advice, or an empty text. A pack of the index is
/// missing or has another size; or a pack is in no index file, and RepairSnapshots would change something.
/// The advice is to repair the index, unless no header of the latter packs can be read: then they have to be
/// moved elsewhere. The index is loaded, and the caller has locked the repository exclusively.
std::string FindMisfit(const Repo::Repository& repository, const std::vector<Repo::StoredSnapshot>& snapshots,
                       const RepairOptions& options);

/// Rewrites the trees of the snapshots, as far as something in them is lost:
///   - a file keeps only the blobs that the index has, and its size is that of these
///   - a directory whose tree is missing, or damaged before its first entry, becomes empty
///   - a directory whose tree is damaged later keeps the entries before the damage
///   - an entry that is wrong in itself is removed
/// All other nodes keep all of their members. A snapshot that changes is saved with the id of the old one as
/// its original, and with the counts of the files that are left in its summary; then the old one is removed,
/// if that is asked for. A snapshot whose root is lost is removed if that is asked for, and has failed
/// otherwise. A snapshot that is too many levels deep has failed, too. A tree that
/// can't be read for another reason, such as an error of the disk, is not lost: that is raised, and its
/// snapshot remains as it is. The observer gets a note for each change; a tree that is in several places is
/// reported once. The index is loaded, and the caller has locked the repository exclusively.
RepairOutcome RepairSnapshots(const Repo::Repository& repository,
                              const std::vector<Repo::StoredSnapshot>& snapshots,
                              const RepairOptions& options, IWorkObserver& observer);

} // namespace Agent
