// SnapshotRestore: restores a snapshot of a repository below a target.
//
// The trees are walked depth first, and the entries come in batches of bounded size. A batch goes through
// these states:
//   1 collected: its entries are known, and which parts of existing files are what the snapshot has
//   2 loading: threads load the blobs that it lacks, each once, while the next batches are collected
//   3 written: its entries are created, in the order of the walk
// A file whose content is larger than a batch is written alone, after all entries before it. Its blobs come
// in windows, which are loaded while those before are written. Invariants:
//   - at most one batch is collected, and PartsAtOnce of the loader and one more are loading or written, so
//     memory is bounded
//   - an entry is created only after the directories above it, and a hard link only after its first name
//   - a file appears under its name only if all its blobs were verified
// A blob that can't be loaded fails the files that need it, and a tree the entries below its directory.
//
// RestorePlanner finds out what an entry needs, BlobLoader reads blobs in the order of the packs, ItemWriter
// creates the entries, and TargetTree gives directories their attributes when all below them is done.
#pragma once

#include "agent/Access/TreeWalk.h"
#include "agent/Restore/ItemWriter.h"
#include "agent/Restore/RestorePlanner.h"

#include <deque>

namespace Agent {

class SnapshotRestore
{
public:
    /// Repository and report outlive the run. The index is loaded. `target` is open; without one, as if it
    /// were empty, only a dry run is possible.
    SnapshotRestore(const Repo::Repository& repository, std::optional<Krt::File::YDirectory> target,
                    RestoreSettings settings, Report& report);
    ~SnapshotRestore();
    SnapshotRestore(const SnapshotRestore&) = delete;
    SnapshotRestore& operator=(const SnapshotRestore&) = delete;

    /// Restores what is below the tree into the target. Returns once it is durable. Raises TargetFull,
    /// LockLost and ServerLost, and InvalidState if the user interrupts; entries that were restored before
    /// stay.
    void Run(const Repo::Id& tree);
    /// Prints what was done.
    void PrintSummary() { m_state.progress.PrintSummary(); }

private:
    struct Batch;

    Step Visit(const std::string& path, Repo::Node& node);
    void AddPending();
    void Add(std::unique_ptr<RestoreItem> item);
    std::vector<Repo::Id> WantedBlobs(const RestoreItem& item, std::uint64_t& bytes) const;
    void StartCollected();
    void WriteOldest();
    void Drain();

    RestoreState m_state;
    RestorePlanner m_planner;
    ItemWriter m_writer;
    BlobLoader m_loader;
    std::vector<std::unique_ptr<RestoreItem>> m_pending; // directories, restored if an entry below is
    std::unique_ptr<Batch> m_collected;
    std::deque<std::unique_ptr<Batch>> m_loading; // the oldest comes first
};

} // namespace Agent
