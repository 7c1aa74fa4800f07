#include "agent/Inspect/Statistics.h"

#include <set>
#include <unordered_map>
#include <unordered_set>

namespace Agent {

using Repo::BlobHandle;
using Repo::BlobType;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;

namespace {

class Counter
{
public:
    Counter(const Repo::Repository& repository, StatisticsMode mode, const TreeFailure& onFailure)
        : m_repository(repository), m_mode(mode), m_onFailure(onFailure)
    {}

    void BeginSnapshot(const Id& tree)
    {
        ++m_statistics.snapshots;
        m_linked.clear();
        if (m_mode == StatisticsMode::RawData)
            CountBlob({BlobType::Tree, tree}, "/");
    }

    Step Count(const std::string& path, const Node& node)
    {
        switch (m_mode) {
        case StatisticsMode::RestoreSize:
            CountEntry(node);
            return Step::Into;
        case StatisticsMode::FilesByContents:
            CountContent(path, node, false);
            break;
        case StatisticsMode::BlobsPerFile:
            CountContent(path, node, true);
            break;
        case StatisticsMode::RawData:
            CountBlobs(path, node);
            break;
        }
        // The content of a tree counts once.
        const bool isNew = node.subtree && m_trees.insert(*node.subtree).second;
        return isNew ? Step::Into : Step::Past;
    }

    const Statistics& Get() const { return m_statistics; }

private:
    void CountEntry(const Node& node)
    {
        ++m_statistics.files;
        const bool hasOtherNames = node.type == NodeType::File && node.links > 1 && node.inode != 0;
        if (!hasOtherNames || m_linked.emplace(node.deviceId, node.inode).second)
            m_statistics.size += node.size;
    }

    void CountContent(const std::string& path, const Node& node, bool countsBlobs)
    {
        static const std::vector<Id> None;
        const std::vector<Id>& content = node.content ? *node.content : None;
        const bool isNew = m_contents
                               .insert(Id::Of({reinterpret_cast<const unsigned char*>(content.data()),
                                               content.size() * sizeof(Id)}))
                               .second;
        if (!isNew)
            return;
        if (countsBlobs) {
            CountBlobsOfPath(path, content);
            return;
        }
        ++m_statistics.files;
        m_statistics.size += node.size;
    }

    // Versions of a file in several snapshots are one file, and a blob counts once for it.
    void CountBlobsOfPath(const std::string& path, const std::vector<Id>& content)
    {
        if (content.empty())
            return;
        const auto [file, isNew] = m_blobsOfPaths.try_emplace(path);
        m_statistics.files += isNew ? 1 : 0;
        for (const Id& id : content) {
            if (!file->second.insert(id).second)
                continue;
            if (const auto found = Find({BlobType::Data, id}, path)) {
                ++m_statistics.blobs;
                m_statistics.size += found->blob.plainLength;
            }
        }
    }

    void CountBlobs(const std::string& path, const Node& node)
    {
        if (node.content) {
            for (const Id& id : *node.content)
                CountBlob({BlobType::Data, id}, path);
        }
        if (node.subtree)
            CountBlob({BlobType::Tree, *node.subtree}, path);
    }

    void CountBlob(const BlobHandle& handle, const std::string& path)
    {
        if (!m_blobs.insert(handle).second)
            return;
        const auto found = Find(handle, path);
        if (!found)
            return;
        ++m_statistics.blobs;
        m_statistics.size += found->blob.length;
        m_statistics.plainSize += found->blob.plainLength;
        if (found->blob.isCompressed) {
            m_statistics.compressedSize += found->blob.length;
            m_statistics.compressedPlainSize += found->blob.plainLength;
        }
    }

    std::optional<Repo::IndexedBlob> Find(const BlobHandle& handle, const std::string& path) const
    {
        const auto found = m_repository.GetIndex().Find(handle);
        try {
            REPOSITORY_RAISE_UNLESS(found || handle.type == BlobType::Tree, Repo::Failure::Missing,
                                    "The index does not have blob " << handle.id.ToHex().c_str());
        } catch (const Repo::RepositoryError& error) {
            m_onFailure(path, error);
        }
        return found;
    }

    const Repo::Repository& m_repository;
    const StatisticsMode m_mode;
    const TreeFailure& m_onFailure;
    Statistics m_statistics;
    std::set<std::pair<std::uint64_t, std::uint64_t>> m_linked; // device and inode, in this snapshot
    std::unordered_set<Id, Repo::IdHash> m_contents;            // hashes of lists of blobs
    std::unordered_map<std::string, std::unordered_set<Id, Repo::IdHash>> m_blobsOfPaths;
    std::unordered_set<Id, Repo::IdHash> m_trees;
    std::unordered_set<BlobHandle, Repo::BlobHandleHash> m_blobs;
};

} // namespace

Statistics CountStatistics(const Repo::Repository& repository,
                           const std::vector<Repo::StoredSnapshot>& snapshots, StatisticsMode mode,
                           const std::function<void()>& onEntry, const TreeFailure& onFailure)
{
    Counter counter(repository, mode, onFailure);
    for (const Repo::StoredSnapshot& stored : snapshots) {
        counter.BeginSnapshot(stored.snapshot.tree);
        WalkTree(
            repository, stored.snapshot.tree, "",
            [&](const std::string& path, Node& node) {
                onEntry();
                return counter.Count(path, node);
            },
            onFailure);
    }
    return counter.Get();
}

} // namespace Agent
