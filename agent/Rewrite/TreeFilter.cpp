#include "agent/Rewrite/TreeFilter.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Repository/Tree.h"
#include "agent/Run/Interrupt.h"

#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Agent {

using Repo::Id;
using Repo::Node;
using Repo::NodeType;

namespace {

// What is in a tree and below.
struct Counts
{
    std::uint64_t entries = 0;
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;

    void Add(const Counts& other)
    {
        entries += other.entries;
        files += other.files;
        bytes += other.bytes;
    }
};

// A tree while it is read. The stack of these replaces recursion, since a snapshot may be deep.
struct OpenTree
{
    OpenTree(const Repo::Repository& repository, const Id& tree, std::string directory)
        : id(tree), path(std::move(directory)), text(Load(repository, tree)), reader(Repo::AsText(text))
    {}

    static Repo::Bytes Load(const Repo::Repository& repository, const Id& tree)
    {
        Repo::Bytes text;
        repository.LoadBlob({Repo::BlobType::Tree, tree}, text);
        return text;
    }
    Id Close(const TreeFilter::TreeSaver& save) const;

    const Id id;
    const std::string path;
    const Repo::Bytes text;
    Repo::TreeReader reader;
    Node node; // the last one that was read
    Counts counts;
    // By the name of the node: the tree that replaces its own, or nothing if the node is left out.
    std::map<std::string, std::optional<Id>> changed;
};

// Returns the id of what is retained.
Id OpenTree::Close(const TreeFilter::TreeSaver& save) const
{
    if (changed.empty())
        return id;
    Repo::TreeReader again(Repo::AsText(text), Repo::UnknownMembers::Keep);
    Repo::TreeWriter whole, filtered;
    for (Node each; again.Next(each);) {
        whole.Add(each);
        const auto change = changed.find(each.name);
        if (change != changed.end())
            each.subtree = change->second;
        if (change == changed.end() || change->second)
            filtered.Add(each);
    }
    KRT_RAISE_UNLESS(whole.Finish(again.GetUnknown()) == Repo::AsText(text), Krt::ErrorCode::NotSupported,
                     "The directory '" << path.c_str() << "' can't be written without losing something");
    const std::string result = filtered.Finish(again.GetUnknown());
    save(result);
    return Id::Of(Repo::AsBytes(result));
}

} // namespace

Id TreeFilter::Apply(const Id& root, const TreeSaver& save, const ExcludedVisitor& onExcluded)
{
    const bool mayRemember = m_excludes.AreOfNames();
    std::unordered_map<Id, Counts, Repo::IdHash> unchanged;
    std::vector<std::unique_ptr<OpenTree>> open;
    open.push_back(std::make_unique<OpenTree>(m_repository, root, ""));
    for (;;) {
        RaiseIfInterrupted();
        m_onStep();
        OpenTree& tree = *open.back();
        if (!tree.reader.Next(tree.node)) {
            const Id id = tree.Close(save);
            const Counts counts = tree.counts;
            if (mayRemember && id == tree.id)
                unchanged.emplace(id, counts);
            open.pop_back();
            if (open.empty()) {
                m_entries = counts.entries;
                m_files = counts.files;
                m_bytes = counts.bytes;
                return id;
            }
            OpenTree& above = *open.back();
            above.counts.Add(counts);
            if (*above.node.subtree != id)
                above.changed[above.node.name] = id;
            continue;
        }
        const std::string path = tree.path + "/" + tree.node.name;
        if (m_excludes.Match(path).matches) {
            tree.changed[tree.node.name] = std::nullopt;
            onExcluded(path);
            continue;
        }
        ++tree.counts.entries;
        if (tree.node.type == NodeType::Directory) {
            REPOSITORY_RAISE_UNLESS(tree.node.subtree && open.size() < DepthLimit, Repo::Failure::Damaged,
                                    "The directory '" << path.c_str()
                                                      << "' has no tree, or is too many levels deep");
            if (const auto known = unchanged.find(*tree.node.subtree); known != unchanged.end()) {
                tree.counts.Add(known->second);
                continue;
            }
            open.push_back(std::make_unique<OpenTree>(m_repository, *tree.node.subtree, path));
        } else if (tree.node.type == NodeType::File) {
            ++tree.counts.files;
            tree.counts.bytes += tree.node.size;
        }
    }
}

} // namespace Agent
