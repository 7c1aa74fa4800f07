// Snapshot: the description of one backup, with the id of its root tree.
#pragma once

#include "agent/Repository/Id.h"
#include "agent/Repository/Json.h"
#include "agent/Repository/Timestamp.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::Repo {

/// What a backup did, counted. Sizes are bytes.
struct SnapshotSummary
{
    Timestamp backupStart;
    Timestamp backupEnd;
    std::uint64_t filesNew = 0;
    std::uint64_t filesChanged = 0;
    std::uint64_t filesUnmodified = 0;
    std::uint64_t dirsNew = 0;
    std::uint64_t dirsChanged = 0;
    std::uint64_t dirsUnmodified = 0;
    std::uint64_t dataBlobs = 0;       ///< new ones
    std::uint64_t treeBlobs = 0;       ///< new ones
    std::uint64_t dataAdded = 0;       ///< plaintext of the new blobs
    std::uint64_t dataAddedPacked = 0; ///< the new blobs as they are stored
    std::uint64_t totalFilesProcessed = 0;
    std::uint64_t totalBytesProcessed = 0;

    friend bool operator==(const SnapshotSummary&, const SnapshotSummary&) = default;
};

struct Snapshot
{
    Timestamp time;                         ///< when the backup began
    std::optional<Id> parent;               ///< the snapshot that unchanged files were compared with
    Id tree;                                ///< of the root
    std::vector<std::string> paths;         ///< absolute paths of what was backed up, in the user's order
    std::string hostname;                   ///< empty if not known
    std::string username;                   ///< empty if not known
    std::uint32_t uid = 0;                  ///< of that user
    std::uint32_t gid = 0;                  ///< of that user
    std::vector<std::string> excludes;      ///< patterns of the backup
    std::vector<std::string> tags;          ///< words that users gave it
    std::optional<Id> original;             ///< the first version of this snapshot, if it was changed
    std::string programVersion;             ///< empty if not known
    std::optional<SnapshotSummary> summary; ///< since version 0.17 of restic
    std::vector<RawMember> unknown;         ///< other members, which ToJson writes last

    /// Reads the JSON text of a snapshot file. Raises Damaged with the offset for other text, and for a
    /// snapshot without a time or a tree.
    static Snapshot Parse(std::string_view json);
    std::string ToJson() const;
};

/// Chooses snapshots. Lists that are empty choose all.
struct SnapshotFilter
{
    std::vector<std::string> hosts;             ///< the hostname is one of these
    std::vector<std::vector<std::string>> tags; ///< all tags of one of these lists; an empty list: no tags
    std::vector<std::string> paths;             ///< all of these are among the paths

    bool Matches(const Snapshot& snapshot) const;
};

/// A snapshot with its id.
struct StoredSnapshot
{
    Id id;
    Snapshot snapshot;
};

} // namespace Agent::Repo
