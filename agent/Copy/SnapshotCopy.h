// SnapshotCopy: copies snapshots from a source repository to a target, with the blobs that the target does
// not have.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/BlobSaver.h"

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <unordered_set>
#include <vector>

namespace Agent {

/// The source of a copy can't be read.
class SourceError : public Repo::RepositoryError
{
public:
    explicit SourceError(const Repo::RepositoryError& cause) : RepositoryError(cause) {}
};

class SnapshotCopy
{
public:
    /// The indexes of both repositories are loaded. The repositories and the observer outlive this object.
    SnapshotCopy(const Repo::Repository& source, const Repo::Repository& target,
                 const Repo::SaveOptions& options, IWorkObserver& observer)
        : m_source(source), m_target(target), m_observer(observer), m_saver(target, options)
    {}

    /// Copies a snapshot, and returns its id in the target. It has no parent, names its first version, and is
    /// otherwise unchanged. Its blobs are verified and durable before it is saved. Trees that the target has
    /// are read there, and copied again if they can't be read; of data, the target's index is trusted. Raises
    ///   - SourceError if the source can't be read. Other snapshots can be copied after that
    ///   - InvalidState if the user interrupts
    ///   - what writing raises; this object is not used after that
    Repo::Id Copy(const Repo::StoredSnapshot& stored);

private:
    void CopyTrees(const Repo::Id& root);
    void Visit(const Repo::Id& tree, std::vector<Repo::Id>& waiting);
    void Require(const Repo::BlobHandle& handle);
    void CopyQueued();
    void SaveOtherCopy(const Repo::BlobHandle& handle);

    const Repo::Repository& m_source;
    const Repo::Repository& m_target;
    IWorkObserver& m_observer;
    Repo::BlobSaver m_saver;
    std::unordered_set<Repo::Id, Repo::IdHash> m_visited;           // trees
    std::map<std::uint32_t, std::vector<Repo::PackedBlob>> m_queue; // blobs to be copied, by pack
    std::unordered_set<Repo::BlobHandle, Repo::BlobHandleHash> m_queued;
    std::mutex m_mutex; // for the failure
    std::optional<Repo::RepositoryError> m_failure;
};

/// Returns the copy of a snapshot among those of the target, or null if there is no copy. A copy has the
/// first version of the snapshot, and its time, tree, host, user, paths, excludes and tags.
const Repo::StoredSnapshot* FindCopy(const Repo::StoredSnapshot& stored,
                                     const std::vector<Repo::StoredSnapshot>& targets);

} // namespace Agent
