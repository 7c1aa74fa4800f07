// Statistics: what snapshots have, counted as restic counts it.
#pragma once

#include "agent/Access/TreeWalk.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace Agent {

/// What is counted.
enum class StatisticsMode
{
    RestoreSize,     ///< all entries, with the bytes of all files; hard links count once in a snapshot
    FilesByContents, ///< entries with different content; all those without content are one
    BlobsPerFile,    ///< files with different content, by path, and the different blobs of each
    RawData          ///< the blobs that are used, trees included, as they are stored
};

struct Statistics
{
    std::uint64_t size = 0;  ///< bytes
    std::uint64_t files = 0; ///< entries, other than in the mode RawData
    std::uint64_t blobs = 0; ///< in the modes BlobsPerFile and RawData
    std::uint64_t snapshots = 0;
    std::uint64_t plainSize = 0;           ///< in the mode RawData: bytes of the plaintext
    std::uint64_t compressedSize = 0;      ///< in the mode RawData: of those blobs that are compressed
    std::uint64_t compressedPlainSize = 0; ///< in the mode RawData: the plaintext of those
};

/// Counts. The index is loaded. Entries that can't be read are given to `onFailure`, and are not counted.
/// `onEntry` is called for each entry.
Statistics CountStatistics(const Repo::Repository& repository,
                           const std::vector<Repo::StoredSnapshot>& snapshots, StatisticsMode mode,
                           const std::function<void()>& onEntry, const TreeFailure& onFailure);

} // namespace Agent
