#include "agent/Copy/SnapshotCopy.h"

#include "agent/Access/Workers.h"
#include "agent/Prune/PackCopy.h"
#include "agent/Run/Interrupt.h"

#include <algorithm>
#include <atomic>

namespace Agent {

using Repo::BlobHandle;
using Repo::BlobType;
using Repo::Id;
using Repo::PackedBlob;
using Repo::RepositoryError;
using Repo::Snapshot;
using Repo::StoredSnapshot;

namespace {

constexpr std::size_t QueueLimit = 500000; // blobs

Id OriginOf(const StoredSnapshot& stored)
{
    return stored.snapshot.original.value_or(stored.id);
}

bool AreSimilar(const Snapshot& a, const Snapshot& b)
{
    return a.time == b.time && a.tree == b.tree && a.hostname == b.hostname && a.username == b.username &&
           a.uid == b.uid && a.gid == b.gid && a.paths == b.paths && a.excludes == b.excludes &&
           a.tags == b.tags;
}

} // namespace

Id SnapshotCopy::Copy(const StoredSnapshot& stored)
{
    try {
        CopyTrees(stored.snapshot.tree);
    } catch (const SourceError&) {
        m_visited.clear(); // what they contain may not have been copied
        m_queue.clear();
        m_queued.clear();
        throw;
    }
    m_saver.Finish();
    Snapshot copy = stored.snapshot;
    copy.parent.reset();
    copy.original = OriginOf(stored);
    return m_target.SaveText(Repo::FileKind::Snapshot, copy.ToJson());
}

void SnapshotCopy::CopyTrees(const Id& root)
{
    std::vector<Id> waiting{root};
    while (!waiting.empty()) {
        RaiseIfInterrupted();
        const Id tree = waiting.back();
        waiting.pop_back();
        if (!m_visited.insert(tree).second)
            continue;
        Visit(tree, waiting);
        m_observer.OnProgress(m_visited.size(), 0, "trees");
        if (m_queued.size() >= QueueLimit)
            CopyQueued();
    }
    CopyQueued();
}

void SnapshotCopy::Visit(const Id& tree, std::vector<Id>& waiting)
{
    m_target.IsReadable({BlobType::Tree, tree}); // otherwise it counts as lost
    try {
        Require({BlobType::Tree, tree});
        m_source.VisitTree(tree, [&](const Repo::Node& node) {
            if (node.content) {
                for (const Id& id : *node.content)
                    Require({BlobType::Data, id});
            }
            if (node.subtree)
                waiting.push_back(*node.subtree);
            return true;
        });
    } catch (const RepositoryError& error) {
        throw SourceError(error);
    }
}

// Queues a blob that the target does not have.
void SnapshotCopy::Require(const BlobHandle& handle)
{
    if (m_saver.Has(handle) || !m_queued.insert(handle).second)
        return;
    const auto found = m_source.GetIndex().Find(handle);
    REPOSITORY_RAISE_UNLESS(found, Repo::Failure::Missing,
                            "The index does not have the blob " << handle.ToText());
    m_queue[found->pack].push_back(found->blob);
}

void SnapshotCopy::CopyQueued()
{
    std::vector<std::pair<std::uint32_t, std::vector<PackedBlob>>> packs(m_queue.begin(), m_queue.end());
    m_queue.clear();
    m_queued.clear();
    m_failure.reset();
    const auto save = [this](const PackedBlob& blob, Repo::ByteView, const Repo::Bytes& plaintext) {
        m_saver.Save(blob.handle, plaintext);
    };
    const auto saveOtherCopy = [this](const PackedBlob& blob, const RepositoryError&) {
        SaveOtherCopy(blob.handle);
    };
    std::atomic<std::size_t> next{0};
    std::atomic<std::uint64_t> done{0};
    RunOnThreads(
        std::min<unsigned int>(WorkerCount(), static_cast<unsigned int>(packs.size())),
        [&](const std::function<bool()>& hasFailed) {
            for (std::size_t i = next++; i < packs.size() && !hasFailed(); i = next++) {
                auto& [pack, blobs] = packs[i];
                ReadBlobs(m_source, m_source.GetIndex().GetPacks()[pack].id, std::move(blobs), save,
                          saveOtherCopy);
                ++done;
            }
        },
        [&] { m_observer.OnProgress(done, packs.size(), "packs"); });
    if (m_failure)
        throw SourceError(*m_failure);
}

// What can't be read is noted, so that all other blobs are copied nevertheless. Any thread.
void SnapshotCopy::SaveOtherCopy(const BlobHandle& handle)
{
    Repo::Bytes plaintext;
    try {
        m_source.LoadBlob(handle, plaintext);
    } catch (const RepositoryError& error) {
        const std::lock_guard guard(m_mutex);
        if (!m_failure)
            m_failure = error;
        return;
    }
    m_saver.Save(handle, plaintext);
}

const StoredSnapshot* FindCopy(const StoredSnapshot& stored, const std::vector<StoredSnapshot>& targets)
{
    const auto found = std::find_if(targets.begin(), targets.end(), [&](const StoredSnapshot& target) {
        return OriginOf(target) == OriginOf(stored) && AreSimilar(target.snapshot, stored.snapshot);
    });
    return found == targets.end() ? nullptr : &*found;
}

} // namespace Agent
