#include "agent/Repair/Recovery.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Access/Workers.h"
#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/InOrder.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <sys/stat.h>

#include <algorithm>

namespace Agent {

using Repo::BlobType;
using Repo::Id;
using Repo::Node;

namespace {

constexpr unsigned int DirectoryMode = S_IFDIR | 0755;

// The numbers of the trees of an index, of each the first copy.
std::vector<std::uint32_t> TreesOf(const Repo::Index& index)
{
    std::vector<std::uint32_t> trees;
    const auto count = static_cast<std::uint32_t>(index.CountBlobs());
    for (std::uint32_t number = 0; number < count; ++number) {
        if (number % (1 << 16) == 0)
            RaiseIfInterrupted();
        const Repo::BlobHandle handle = index.At(number).blob.handle;
        if (handle.type == BlobType::Tree && index.Find(handle)->number == number)
            trees.push_back(number);
    }
    return trees;
}

// What a tree refers to, as the reading threads find it.
struct References
{
    std::vector<Id> subtrees;
    bool isWhole = true; // the index has all of it
};

References ReferencesOf(const Repo::Repository& repository, const Id& tree)
{
    const Repo::Index& index = repository.GetIndex();
    References references;
    repository.VisitTree(tree, [&](const Node& node) {
        if (node.subtree)
            references.subtrees.push_back(*node.subtree);
        const auto has = [&index](const Id& id) {
            return index.Has({BlobType::Data, id});
        };
        references.isWhole = references.isWhole &&
                             (!node.subtree || index.Has({BlobType::Tree, *node.subtree})) &&
                             (!node.content || std::all_of(node.content->begin(), node.content->end(), has));
        return true;
    });
    return references;
}

// Finds the trees below which something is lost.
class LossSearch
{
public:
    // By the number of a tree: it can't be read, or the index lacks what it refers to.
    LossSearch(const Repo::Repository& repository, const std::vector<bool>& hasLoss)
        : m_repository(repository), m_hasLoss(hasLoss), m_isWhole(hasLoss.size())
    {}

    bool HasLoss(const Id& root)
    {
        for (Enter(root); !m_open.empty();) {
            RaiseIfInterrupted();
            Open& open = m_open.back();
            if (!open.subtrees.empty()) {
                const Id next = open.subtrees.back();
                open.subtrees.pop_back();
                Enter(next);
                continue;
            }
            m_isWhole[open.number] = true;
            m_open.pop_back();
        }
        return !m_isWhole[NumberOf(root)];
    }

private:
    struct Open
    {
        std::uint32_t number;
        std::vector<Id> subtrees; // not examined yet
    };

    std::uint32_t NumberOf(const Id& tree) const
    {
        return m_repository.GetIndex().Find({BlobType::Tree, tree})->number;
    }
    void Enter(const Id& tree)
    {
        const std::uint32_t number = NumberOf(tree);
        if (m_isWhole[number])
            return;
        if (!m_hasLoss[number]) {
            m_open.push_back({number, ReferencesOf(m_repository, tree).subtrees});
            return;
        }
        for (const Open& above : m_open)
            m_hasLoss[above.number] = true;
        m_open.clear();
    }

    const Repo::Repository& m_repository;
    std::vector<bool> m_hasLoss;
    std::vector<bool> m_isWhole; // with all that is below it
    std::vector<Open> m_open;    // from the root to the tree that is examined
};

} // namespace

std::vector<Id> FindLostRoots(const Repo::Repository& repository,
                              const std::vector<Repo::StoredSnapshot>& snapshots, IWorkObserver& observer)
{
    const Repo::Index& index = repository.GetIndex();
    const std::vector<std::uint32_t> trees = TreesOf(index);
    std::vector<bool> isNoRoot(index.CountBlobs()); // something refers to it, or it can't be read
    std::vector<bool> hasLoss(index.CountBlobs());  // see LossSearch
    const auto refer = [&](const Id& tree) {
        if (const auto found = index.Find({BlobType::Tree, tree}))
            isNoRoot[found->number] = true;
    };
    const auto idOf = [&](std::size_t i) {
        return index.At(trees[i]).blob.handle.id;
    };
    Repo::RunInOrder<References>(
        trees.size(), WorkerCount(),
        [&](std::size_t i, References& references) {
            RaiseIfInterrupted();
            references = ReferencesOf(repository, idOf(i));
        },
        [&](std::size_t i, const References& references, const std::exception_ptr& failure) {
            try {
                if (failure)
                    std::rethrow_exception(failure);
                std::for_each(references.subtrees.begin(), references.subtrees.end(), refer);
                hasLoss[trees[i]] = !references.isWhole;
            } catch (const Repo::RepositoryError& error) {
                if (!error.IsOfFile())
                    throw;
                isNoRoot[trees[i]] = hasLoss[trees[i]] = true;
                observer.OnNote("a tree can't be read: " + ReasonOf(error).Bytes());
            }
            observer.OnProgress(i + 1, trees.size(), "trees");
        });
    for (const Repo::StoredSnapshot& stored : snapshots)
        refer(stored.snapshot.tree);
    std::vector<Id> roots;
    for (const std::uint32_t number : trees) {
        if (!isNoRoot[number])
            roots.push_back(index.At(number).blob.handle.id);
    }
    std::sort(roots.begin(), roots.end());
    if (std::find(hasLoss.begin(), hasLoss.end(), true) != hasLoss.end()) {
        LossSearch search(repository, hasLoss);
        for (const Id& root : roots) {
            if (search.HasLoss(root))
                observer.OnNote(
                    "directory " + ShortId(root) +
                    ": parts of it can't be read; after a new backup, 'kbagent repair snapshots --forget' "
                    "with the ID of the new snapshot removes from that what is still lost");
        }
    }
    return roots;
}

bool HasPlaceOfSnapshots(const Repo::Repository& repository)
{
    try {
        repository.GetBackend().RequirePlace(Repo::FileKind::Snapshot);
        return true;
    } catch (const Repo::RepositoryError& error) {
        if (error.GetFailure() != Repo::Failure::Missing)
            throw;
        return false;
    }
}

Id SaveRecovered(const Repo::Repository& repository, const std::vector<Id>& roots, Repo::Snapshot snapshot)
{
    Repo::TreeWriter writer;
    std::string last;
    for (const Id& root : roots) {
        Node node;
        node.name = ShortId(root);
        if (node.name <= last.substr(0, node.name.size()))
            node.name = root.ToHex();
        last = node.name;
        node.type = Repo::NodeType::Directory;
        node.mode = Repo::MakeNodeMode(DirectoryMode);
        node.mtime = node.atime = node.ctime = snapshot.time;
        node.subtree = root;
        writer.Add(node);
    }
    Repo::SaveOptions saving;
    saving.onWait = RaiseIfInterrupted;
    Repo::BlobSaver saver(repository, saving);
    snapshot.tree = saver.SaveTree(writer.Finish());
    saver.Finish();
    if (!HasPlaceOfSnapshots(repository))
        repository.GetBackend().Prepare();
    return repository.SaveText(Repo::FileKind::Snapshot, snapshot.ToJson());
}

} // namespace Agent
