// PrunePlan: decides what a prune does with each pack. It only computes: nothing is read or written.
//
//   a blob:   used (a snapshot needs it) | unused
//   a copy:   needed (the one copy of a used blob that stays) | spare (another copy of a used blob) | unused
//   a pack:   kept | repacked (its needed copies are saved in new packs, then it is removed) | removed
//   a file:   named by the index | unindexed, and removed
//
// Invariants:
//   - Each used blob has exactly one needed copy. It is in a pack that exists and has the size that the index
//     expects, and it is not known to be damaged. Otherwise MakePrunePlan raises.
//   - A pack with a needed copy is kept or repacked. All others are removed, also from the index if their
//     files are missing.
//   - The needed copy is that in the pack with the fewest unused bytes. So after an interrupted prune the new
//     packs stay, and not the old ones.
//
// Repacked are, as long as the limit of bytes to be repacked permits:
//   1. packs with trees, if they have anything unused, are mixed or have an uncompressed tree
//   2. packs that the options ask for: uncompressed or small ones; small ones also if there are 10 of a type.
//      New packs are not small, so a second prune does not repack them
//   3. of the others, those with the largest unused share, until what stays unused is within its limit
#pragma once

#include "agent/Repository/Index.h"
#include "agent/Repository/SaveOptions.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace Agent {

/// How much may stay unused.
struct UnusedLimit
{
    double percent = 5;                 ///< of what remains; 100 for no limit
    std::optional<std::uint64_t> bytes; ///< takes precedence

    /// Reads "unlimited", a percentage such as "2.5%" or a size such as "500M". Raises UsageError for other
    /// text.
    static UnusedLimit Parse(const std::string& text);
    /// In bytes, when `used` bytes are used.
    std::uint64_t For(std::uint64_t used) const;
};

/// What is repacked.
struct PruneOptions
{
    UnusedLimit maxUnused;
    std::uint64_t maxRepackSize = UINT64_MAX; ///< bytes of the packs that are repacked
    /// Packs below this size are small; 0 for those that are far below others. At most the size of new packs.
    std::uint64_t smallSize = 0;
    bool repacksOnlyTrees = false;    ///< packs with data are kept
    bool repacksUncompressed = false; ///< packs with anything uncompressed are repacked
    /// For a full disk: no pack is repacked, and as little as possible is written. What can be removed is
    /// removed before. If there is no other way, a pack without needed blobs is removed before the index
    /// files that name it.
    bool hasNoFreeSpace = false;
    Repo::SaveOptions save;       ///< how what is repacked is saved
    bool isDryRun = false;        ///< nothing is changed
    std::set<Repo::Id> forgotten; ///< snapshots that count as removed, for a dry run
};

/// A number of blobs, and their bytes in packs with their share of the header.
struct BlobAmount
{
    std::uint64_t blobs = 0;
    std::uint64_t bytes = 0;

    void Add(const BlobAmount& other)
    {
        blobs += other.blobs;
        bytes += other.bytes;
    }
};

/// What a prune finds and does. Packs whose files are missing are not counted.
struct PruneStatistics
{
    BlobAmount used;
    BlobAmount duplicate; ///< spare copies
    BlobAmount unused;
    BlobAmount repack;       ///< in packs that are repacked
    BlobAmount repackRemove; ///< in these, what is not needed
    BlobAmount remove;       ///< in packs that are removed

    std::uint64_t unindexedBytes = 0;
    std::uint64_t uncompressedBytes = 0;
    std::uint64_t usedPacks = 0; ///< with needed copies alone
    std::uint64_t partlyUsedPacks = 0;
    std::uint64_t unusedPacks = 0; ///< without needed copies
    std::uint64_t unindexedPacks = 0;
    std::uint64_t keptPacks = 0;
    std::uint64_t repackedPacks = 0;
    std::uint64_t removedPacks = 0; ///< of those that the index names

    BlobAmount Total() const;       ///< with the bytes of unindexed packs
    BlobAmount TotalRemove() const; ///< with the bytes of unindexed packs
    BlobAmount Remaining() const;
    std::uint64_t RemainingUnused() const; ///< bytes
};

/// What is done with a pack.
enum class PackFate : unsigned char
{
    Keep,
    Repack,
    Remove
};

struct PrunePlan
{
    std::vector<PackFate> fates;     ///< by the number of the pack
    std::vector<bool> isNeeded;      ///< by the number of the blob: this copy stays
    std::vector<Repo::Id> unindexed; ///< packs, sorted
    PruneStatistics statistics;
};

/// The sizes of the files of packs.
using PackSizes = std::unordered_map<Repo::Id, std::uint64_t, Repo::IdHash>;

/// What a prune knows of the blobs of the index, by their numbers.
struct BlobFacts
{
    std::vector<bool> isUsed; ///< of each used blob the first copy; see FindUsedBlobs
    std::vector<bool> isBad;  ///< this copy is damaged
};

/// After how many blobs a loop over an index checks whether the user interrupts.
constexpr std::uint32_t BlobsPerLook = 1 << 16;

/// Decides. Raises Missing or Damaged if all copies of a used blob are damaged, or in packs that are missing
/// or have a wrong size. `onLook` is called every BlobsPerLook blobs. What it raises passes through.
PrunePlan MakePrunePlan(
    const Repo::Index& index, const BlobFacts& facts, const PackSizes& files, const PruneOptions& options,
    const std::function<void()>& onLook = [] {});

} // namespace Agent
