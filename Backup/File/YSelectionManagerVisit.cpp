// The walks through the selection tree and what is gathered by them.
// Errors of all sources of YSelectionManager report one path.
#define KRT_SOURCE_FILE "Backup/File/YSelectionManager.cpp"

#include "Backup/File/YSelectionManager.h"
#include "Backup/File/YSelectionNodeWalk.h"

#include "Krt/Container/YSet.h"
#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Log/YStream.h"

#include <algorithm>
#include <optional>

namespace Backup::File {

using Krt::File::YPath;
using Krt::Time::YDuration;
using Node = YSelectionManager::YSelectionManagerNode;

namespace {

// The visitors of a walk: each level gets a copy of the one above it, as it stands then, so that what a
// visitor keeps by value never comes back up.
template <class Visitor>
class VisitorsByLevel
{
public:
    explicit VisitorsByLevel(const Visitor& visitor) : m_visitors{visitor} {}

    /// For one node of the level: a new copy, except at the start.
    Visitor& ForNode(std::size_t level)
    {
        if (level != 0)
            m_visitors.resize(level);
        return ForSiblings(level);
    }
    /// For all nodes with the same parent.
    Visitor& ForSiblings(std::size_t level)
    {
        if (level == m_visitors.size())
            m_visitors.push_back(m_visitors.back());
        else
            m_visitors.resize(level + 1);
        return m_visitors.back();
    }

private:
    std::vector<Visitor> m_visitors;
};

} // namespace

const Node::Rules* Node::RulesOfType(SelectionType type) const
{
    if (type == SelectionType::Include)
        return &m_includes;
    return type == SelectionType::Exclude ? &m_excludes : nullptr;
}

bool Node::VisitPaths(SelectionType type, PathVisitor visitor) const
{
    if (RulesOfType(type) == nullptr)
        return false;
    Walk walk(*this);
    while (const Node* const node = walk.Current()) {
        if (node->RulesOfType(type)->empty()) {
            walk.Next();
            continue;
        }
        if (PathVisitor(visitor)(node->GetPath())) // as it was given: no level above has used it
            return true;
        walk.NextBeside();
    }
    return false;
}

bool Node::VisitPathsAndDescriptors(SelectionType type, RuleVisitor visitor, bool recurse) const
{
    return RulesOfType(type) != nullptr && VisitRules({type}, visitor, recurse);
}

bool Node::VisitPathsAndDescriptors(RuleVisitor visitor, bool recurse) const
{
    return VisitRules({SelectionType::Include, SelectionType::Exclude}, visitor, recurse);
}

bool Node::VisitRules(std::initializer_list<SelectionType> types, const RuleVisitor& visitor,
                      bool recurse) const
{
    VisitorsByLevel visitors(visitor);
    for (Walk walk(*this); const Node* const node = walk.Current(); walk.Next()) {
        const RuleVisitor& visitOwn = visitors.ForNode(walk.Depth());
        std::optional<YPath> path; // only nodes with rules need one
        for (const SelectionType type : types) {
            for (const YSelectionDescriptor& rule : *node->RulesOfType(type)) {
                if (!path)
                    path = node->GetPath();
                if (visitOwn(*path, rule))
                    return true;
            }
        }
        if (!recurse)
            return false;
    }
    return false;
}

void Node::VisitAllNodes(YSelectionManagerNode& start, NodeVisitor visitor)
{
    VisitorsByLevel visitors(visitor);
    Walk walk(start);
    for (walk.Next(); walk.Current() != nullptr; walk.Next())
        Krt::CallFunction(visitors.ForSiblings(walk.Depth() - 1), walk.Current());
}

bool YSelectionManager::VisitPaths(SelectionType type, const YPath& start, PathVisitor visitor) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return FindNode(start, false).first->VisitPaths(type, std::move(visitor));
}

bool YSelectionManager::VisitPathsAndDescriptors(SelectionType type, const YPath& start, RuleVisitor visitor,
                                                 bool recurse) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return FindNode(start, false).first->VisitPathsAndDescriptors(type, std::move(visitor), recurse);
}

bool YSelectionManager::VisitPathsAndDescriptors(const YPath& start, RuleVisitor visitor, bool recurse) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return FindNode(start, false).first->VisitPathsAndDescriptors(std::move(visitor), recurse);
}

void YSelectionManager::VisitAllNodes(NodeVisitor visitor) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    Krt::CallFunction(visitor, m_root.get());
    Node::VisitAllNodes(*m_root, std::move(visitor));
}

std::set<YPath> YSelectionManager::GetIncludeTops(const YPath& start) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    std::set<YPath> tops;
    VisitPaths(SelectionType::Include, start, [&](const YPath& path) {
        if (path.IsEmpty())
            KRT_RAISE_AS("operator()", MessageType::General, ErrorCode::InvalidArgument,
                         "Path should never be empty on unix.  Even for the root node is should be /");
        // There are no answers about the root. Elsewhere a top that is excluded, or cut off, is none.
        if (path == "/" || IsPathSelectedOrSelectionParent(path))
            tops.insert(path);
        return false;
    });
    return tops;
}

void YSelectionManager::GetVolumes(Krt::Container::YSet<YPath>& volumes) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    volumes.Clear();
    for (const YPath& top : GetIncludeTops(YPath()))
        volumes.Insert(top.GetVolume());
}

// Of a deep path all ancestors together would take memory that grows with the square of its depth. Each one
// is the beginning of the path, so that its length is enough.
void YSelectionManager::VisitRulesAbove(const YPath& path, const RuleVisitor& visitor) const
{
    const auto isTop = [](const YPath& candidate) {
        return candidate.IsEmpty() || candidate == "/" || candidate.RemoveVolume().IsEmpty();
    };
    std::vector<std::size_t> lengths;
    for (YPath current = path; !isTop(current);) {
        current = current.RemoveFile();
        lengths.push_back(current.Bytes().size());
    }
    lengths.push_back(0); // the empty path too, whatever the top is
    for (auto length = lengths.rbegin(); length != lengths.rend(); ++length) {
        const YPath ancestor(YString(std::string_view(path.Bytes()).substr(0, *length)));
        VisitPathsAndDescriptors(ancestor, visitor, false);
    }
}

std::set<YSelectionPathDescriptor> YSelectionManager::GetSelections(const YPath& path) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    std::set<YSelectionPathDescriptor> selections;
    VisitRulesAbove(path, [&](const YPath& place, const YSelectionDescriptor& rule) {
        if (rule.IsRecursive())
            selections.insert(YSelectionPathDescriptor(place, rule));
        return false;
    });
    VisitPathsAndDescriptors(
        path,
        [&](const YPath& place, const YSelectionDescriptor& rule) {
            // A walk from a path without a node began above it.
            if (path.IsEmpty() || place.IsChildOf(path, true))
                selections.insert(YSelectionPathDescriptor(place, rule));
            return false;
        },
        true);
    return selections;
}

void Node::Write(Krt::YStream& stream) const
{
    using Krt::Hex;
    using Krt::Modifiers;
    const auto writeRules = [&](const char* title, const Rules& rules) {
        stream << title;
        const char* separator = "";
        for (const YSelectionDescriptor& rule : rules) {
            stream << separator << rule;
            separator = ", ";
        }
        stream << Modifiers::EndLine;
    };
    stream << "name: \"" << m_name << "\"" << Modifiers::EndLine;
    stream << " node address: " << Hex::On << reinterpret_cast<unsigned long>(this) << Modifiers::EndLine;
    stream << " path: \"" << GetPath() << Modifiers::EndLine;
    stream << " parent: " << Hex::On << reinterpret_cast<unsigned long>(m_parent) << Modifiers::EndLine;
    writeRules(" includes: ", m_includes);
    writeRules(" excludes: ", m_excludes);
}

Krt::YStream& operator<<(Krt::YStream& stream, const Node& node)
{
    struct Level
    {
        const Node* node;
        Node::NamedChildren children;
        std::size_t next = 0;
    };
    node.Write(stream);
    std::vector<Level> open;
    open.push_back({&node, node.ChildrenInOrder()});
    while (!open.empty()) {
        Level& level = open.back();
        if (level.next == level.children.size()) {
            open.pop_back();
            continue;
        }
        const auto& [name, child] = level.children[level.next++];
        if (child == nullptr) { // a damaged tree is what such a print is for
            stream << "child.second is empty for: " << YString(name)
                   << " under node at address: " << Krt::Hex::On
                   << reinterpret_cast<unsigned long>(level.node) << Krt::Modifiers::EndLine;
            continue;
        }
        child->Write(stream);
        open.push_back({child, child->ChildrenInOrder()});
    }
    return stream;
}

Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionManager& manager)
{
    manager.m_lock.ReadLock(YDuration::Zero()).Release();
    return stream << *manager.m_root;
}

} // namespace Backup::File
