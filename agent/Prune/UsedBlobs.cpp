#include "agent/Prune/UsedBlobs.h"

#include "agent/Access/WorkList.h"
#include "agent/Access/Workers.h"

#include "Krt/Thread/ThreadSafety.h"

#include <atomic>

namespace Agent {

using Krt::Thread::AnnotatedLock;
using Repo::BlobType;
using Repo::Id;
using Repo::Node;

namespace {

// Which blobs are used, and the trees that are to be read. Each tree is read once.
class UsedSet
{
public:
    explicit UsedSet(const Repo::Index& index) : m_index(index), m_isUsed(index.CountBlobs()) {}

    // The number of the first copy of a blob. `user` is what needs it, for the message.
    std::uint32_t NumberOf(const Repo::BlobHandle& handle, const std::string& user) const
    {
        const auto found = m_index.Find(handle);
        REPOSITORY_RAISE_UNLESS(found, Repo::Failure::Missing,
                                "The index does not have the blob " << handle.ToText() << ", which "
                                                                    << user.c_str() << " needs");
        return found->number;
    }

    void Add(const std::vector<std::uint32_t>& data, const std::vector<std::uint32_t>& trees)
    {
        const AnnotatedLock lock(m_mutex);
        for (const std::uint32_t number : data)
            m_isUsed[number] = true;
        for (const std::uint32_t number : trees) {
            if (m_isUsed[number])
                continue;
            m_isUsed[number] = true;
            m_trees.Add(number);
        }
    }

    // Calls `work` with the ID of each tree, until all were read or a thread has failed.
    template <class Work>
    void ProcessTrees(const std::function<bool()>& hasFailed, const Work& work)
    {
        m_trees.Process(hasFailed, [&](std::uint32_t number) { work(m_index.At(number).blob.handle.id); });
    }

    std::vector<bool> TakeResult()
    {
        const AnnotatedLock lock(m_mutex);
        return std::move(m_isUsed);
    }

private:
    const Repo::Index& m_index;
    Krt::Thread::AnnotatedMutex m_mutex;
    std::vector<bool> m_isUsed KRT_GUARDED_BY(m_mutex);
    WorkList<std::uint32_t> m_trees; // by number, which takes less memory than the ID
};

// Adds what a tree refers to, whatever the types of its nodes.
void AddTree(const Repo::Repository& repository, const Id& tree, UsedSet& used)
{
    const std::string user = "the tree " + tree.ToHex();
    std::vector<std::uint32_t> data;
    std::vector<std::uint32_t> trees;
    repository.VisitTree(tree, [&](const Node& node) {
        if (node.content) {
            for (const Id& id : *node.content)
                data.push_back(used.NumberOf({BlobType::Data, id}, user));
        }
        if (node.subtree)
            trees.push_back(used.NumberOf({BlobType::Tree, *node.subtree}, user));
        return true;
    });
    used.Add(data, trees);
}

} // namespace

std::vector<bool> FindUsedBlobs(const Repo::Repository& repository,
                                const std::vector<Repo::StoredSnapshot>& snapshots,
                                const std::function<void(std::uint64_t trees)>& report)
{
    UsedSet used(repository.GetIndex());
    for (const Repo::StoredSnapshot& stored : snapshots)
        used.Add(
            {}, {used.NumberOf({BlobType::Tree, stored.snapshot.tree}, "the snapshot " + stored.id.ToHex())});
    std::atomic<std::uint64_t> trees{0};
    RunOnThreads(
        WorkerCount(),
        [&](const std::function<bool()>& hasFailed) {
            used.ProcessTrees(hasFailed, [&](const Id& tree) {
                AddTree(repository, tree, used);
                ++trees;
            });
        },
        [&] { report(trees); });
    return used.TakeResult();
}

} // namespace Agent
