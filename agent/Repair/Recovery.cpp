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
        const Repo::BlobHandle handle = index.At(number).blob.handle;
        if (handle.type == BlobType::Tree && index.Find(handle)->number == number)
            trees.push_back(number);
    }
    return trees;
}

} // namespace

std::vector<Id> FindLostRoots(const Repo::Repository& repository,
                              const std::vector<Repo::StoredSnapshot>& snapshots, IWorkObserver& observer)
{
    const Repo::Index& index = repository.GetIndex();
    const std::vector<std::uint32_t> trees = TreesOf(index);
    std::vector<bool> isNoRoot(index.CountBlobs()); // something refers to it, or it can't be read
    const auto refer = [&](const Id& tree) {
        if (const auto found = index.Find({BlobType::Tree, tree}))
            isNoRoot[found->number] = true;
    };
    const auto idOf = [&](std::size_t i) {
        return index.At(trees[i]).blob.handle.id;
    };
    Repo::RunInOrder<std::vector<Id>>(
        trees.size(), WorkerCount(),
        [&](std::size_t i, std::vector<Id>& children) {
            RaiseIfInterrupted();
            repository.VisitTree(idOf(i), [&children](const Node& node) {
                if (node.subtree)
                    children.push_back(*node.subtree);
                return true;
            });
        },
        [&](std::size_t i, const std::vector<Id>& children, const std::exception_ptr& failure) {
            try {
                if (failure)
                    std::rethrow_exception(failure);
                std::for_each(children.begin(), children.end(), refer);
            } catch (const Repo::RepositoryError& error) {
                if (!error.IsOfFile())
                    throw;
                isNoRoot[trees[i]] = true;
                observer.OnNote("a tree can't be read: " + ReasonOf(error).Bytes());
            }
            observer.OnProgress(i + 1, trees.size());
        });
    for (const Repo::StoredSnapshot& stored : snapshots)
        refer(stored.snapshot.tree);
    std::vector<Id> roots;
    for (const std::uint32_t number : trees) {
        if (!isNoRoot[number])
            roots.push_back(index.At(number).blob.handle.id);
    }
    std::sort(roots.begin(), roots.end());
    return roots;
}

Id SaveRoots(const Repo::Repository& repository, const std::vector<Id>& roots, const Repo::Timestamp& time)
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
        node.mtime = node.atime = node.ctime = time;
        node.subtree = root;
        writer.Add(node);
    }
    Repo::SaveOptions saving;
    saving.onWait = RaiseIfInterrupted;
    Repo::BlobSaver saver(repository, saving);
    const Id id = saver.SaveTree(writer.Finish());
    saver.Finish();
    return id;
}

} // namespace Agent
