#include "agent/Repair/TreeRepair.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Repository/Tree.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <algorithm>

namespace Agent {

using Repo::BlobType;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;
using Repo::RepositoryError;

namespace {

// Another attempt may succeed after any other failure, also after an error of the disk.
bool IsLoss(const RepositoryError& error)
{
    return error.GetFailure() == Repo::Failure::Damaged || error.GetFailure() == Repo::Failure::Missing;
}

} // namespace

std::optional<TreeRepair::Result> TreeRepair::Repair(const Id& root)
{
    m_path.clear();
    m_open.clear();
    if (!m_done.contains(root) && !Open(root))
        return std::nullopt;
    while (!m_open.empty()) {
        RaiseIfInterrupted();
        if (RepairNext())
            continue;
        Close();
        m_onDone(m_done.size());
    }
    return m_done.at(root);
}

// Returns false if the tree is lost.
bool TreeRepair::Open(const Id& tree)
{
    OpenTree open;
    open.id = tree;
    open.pathLength = m_path.size();
    Repo::Bytes text;
    try {
        m_repository.LoadBlob({BlobType::Tree, tree}, text);
        ReadNodes(open, text);
    } catch (const RepositoryError& error) {
        if (!IsLoss(error))
            throw;
        return false;
    }
    const auto isBefore = [](const Node& a, const Node& b) {
        return a.name < b.name;
    };
    if (!std::is_sorted(open.nodes.begin(), open.nodes.end(), isBefore)) {
        std::sort(open.nodes.begin(), open.nodes.end(), isBefore);
        Change(open, m_path, "sorted its entries");
    }
    m_open.push_back(std::move(open));
    return true;
}

// An entry that is wrong in itself is left out. The entries before a damage of the text are kept, since they
// can be restored.
void TreeRepair::ReadNodes(OpenTree& open, const Repo::Bytes& text) const
{
    Repo::TreeReader reader(Repo::AsText(text), Repo::UnknownMembers::Keep,
                            [&](const RepositoryError& error) {
                                Change(open, m_path, "removed an entry: " + ReasonOf(error).Bytes());
                            });
    try {
        for (Node node; reader.Next(node); node = Node())
            open.nodes.push_back(std::move(node));
        open.unknown = reader.GetUnknown();
    } catch (const RepositoryError& error) {
        if (open.nodes.empty())
            throw;
        open.unknown = reader.GetUnknown();
        Repo::JoinRepeated(open.unknown);
        Change(open, m_path, CutOff + std::string(": ") + ReasonOf(error).Bytes());
    }
}

// Returns false after the last node of the innermost tree.
bool TreeRepair::RepairNext()
{
    OpenTree& open = m_open.back();
    m_path.resize(open.pathLength);
    if (open.next == open.nodes.size())
        return false;
    Node& node = open.nodes[open.next];
    m_path += "/" + node.name;
    if (node.type == NodeType::Directory) {
        RepairDirectory(open, node);
        return true;
    }
    if (node.type == NodeType::File) {
        RepairFile(open, node);
        ++open.files;
        open.bytes += node.size;
    }
    ++open.next;
    return true;
}

void TreeRepair::RepairDirectory(OpenTree& open, Node& node)
{
    if (node.subtree) {
        if (const auto done = m_done.find(*node.subtree); done != m_done.end()) {
            const Result& result = done->second;
            open.isChanged |= result.id != *node.subtree;
            node.subtree = result.id;
            open.files += result.files;
            open.bytes += result.bytes;
            ++open.next;
            return;
        }
        REPOSITORY_RAISE_UNLESS(m_open.size() < DepthLimit, Repo::Failure::Damaged,
                                "The directory '" << m_path.c_str() << "' is too many levels deep");
        if (Open(*node.subtree))
            return; // when that is closed, the node is visited again
    }
    Change(open, m_path, Emptied);
    node.subtree = SaveText(Repo::TreeWriter().Finish());
    ++open.next;
}

void TreeRepair::RepairFile(OpenTree& open, Node& node) const
{
    std::vector<Id> content;
    std::uint64_t size = 0;
    for (const Id& id : node.content.value_or(std::vector<Id>())) {
        const auto found = m_repository.GetIndex().Find({BlobType::Data, id});
        if (!found)
            continue;
        content.push_back(id);
        size += found->blob.plainLength;
    }
    const bool isComplete = node.content && content.size() == node.content->size();
    if (isComplete && size == node.size)
        return;
    Change(open, m_path, isComplete ? "corrected its size" : "removed missing content");
    node.content = std::move(content);
    node.size = size;
}

void TreeRepair::Close()
{
    OpenTree closed = std::move(m_open.back());
    m_open.pop_back();
    m_done[closed.id] = {closed.isChanged ? Save(closed) : closed.id, closed.files, closed.bytes};
}

Id TreeRepair::Save(OpenTree& open) const
{
    Repo::TreeWriter writer;
    for (const Node& node : open.nodes)
        writer.Add(node);
    return SaveText(writer.Finish(open.unknown));
}

Id TreeRepair::SaveText(const std::string& text) const
{
    return m_saver != nullptr ? m_saver->SaveTree(text) : Id::Of(Repo::AsBytes(text));
}

void TreeRepair::Change(OpenTree& open, const std::string& path, const std::string& change) const
{
    open.isChanged = true;
    m_onChange(path.empty() ? "/" : path, change);
}

} // namespace Agent
