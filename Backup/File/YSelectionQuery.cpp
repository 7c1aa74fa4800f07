// What a selection tree answers about paths, and the walks through it.
// An error names the source file of its class, and these are functions of YSelectionManager and its nodes.
#define KRT_SOURCE_FILE "Backup/File/YSelectionManager.cpp"

#include "Backup/File/YSelectionTree.h"

#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Log/LogSite.h"

#include <boost/container/small_vector.hpp>

#include <optional>

namespace Backup::File {

using Krt::File::YPath;
using Krt::Time::YDuration;
using Node = YSelectionManager::YSelectionManagerNode;
using SelectionType = YSelectionManager::SelectionType;

class YSelectionManager::NodesOnPath
{
public:
    NodesOnPath(const YSelectionManagerNode& root, const Components& path) : components(path)
    {
        m_nodes.push_back(&root);
        for (const YString& component : components) {
            const Node* const child = m_nodes.back()->FindChild(component);
            if (child == nullptr)
                break;
            m_nodes.push_back(child);
        }
    }

    /// Returns the node of the first `depth` components, or nullptr if it does not exist.
    const Node* At(std::size_t depth) const { return depth < m_nodes.size() ? m_nodes[depth] : nullptr; }
    const Node& Deepest() const { return *m_nodes.back(); }

    const Components& components;

private:
    boost::container::small_vector<const Node*, 24> m_nodes;
};

SelectionType YSelectionManager::GetPathSelectionType(const YPath& path) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    bool reportable = false;
    KRT_LOG(MessageType::SelectionBuild, "GetPathSelectionType called for: " << path);
    const NodesOnPath nodes(*m_root, path.PopulateComponents());
    const bool included = MatchesInclude(nodes);
    const bool excluded = MatchesExclude(nodes, reportable);
    if (included && !excluded) {
        KRT_LOG(MessageType::SelectionBuild, "Path Include: " << path);
        return SelectionType::Include;
    }
    if (included && reportable) {
        KRT_LOG(MessageType::SelectionBuild, "Path is Exclude: " << path);
        return SelectionType::Exclude;
    }
    if (included) {
        KRT_LOG(MessageType::SelectionBuild, "Path is not-reportable exclude: " << path);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    // A path that no include matches may be excluded reportably. A walk still continues to what is explicitly
    // included below it.
    if (excluded && !reportable) {
        KRT_LOG(MessageType::SelectionBuild,
                "Path NotSelectedDoNotRecurse (not included but matches exclude): " << path);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    if (AllChildrenAreExcludedNotReportably(nodes)) {
        KRT_LOG(MessageType::SelectionBuild,
                "Path NotSelectedDoNotRecurse (all children excluded): " << path);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    if (AnyIncludesApplyBelow(nodes)) {
        KRT_LOG(MessageType::SelectionBuild, "Path NotSelectedDoRecurse (includes below path): " << path);
        return SelectionType::NotSelectedDoRecurse;
    }
    KRT_LOG(MessageType::SelectionBuild, "Path NotSelectedDoNotRecurse (fall through): " << path);
    return SelectionType::NotSelectedDoNotRecurse;
}

bool YSelectionManager::IsPathSelected(const YPath& path) const
{
    return GetPathSelectionType(path) == SelectionType::Include;
}

bool YSelectionManager::IsPathSelectedOrSelectionParent(const YPath& path) const
{
    const SelectionType type = GetPathSelectionType(path);
    return type == SelectionType::Include || type == SelectionType::NotSelectedDoRecurse;
}

bool YSelectionManager::ShouldEnumeratePath(const YPath& path) const
{
    return IsPathSelectedOrSelectionParent(path);
}

bool YSelectionManager::IsPathNotSelected(const YPath& path) const
{
    const SelectionType type = GetPathSelectionType(path);
    return type == SelectionType::NotSelectedDoNotRecurse || type == SelectionType::NotSelectedDoRecurse;
}

bool YSelectionManager::IsPathExcluded(const YPath& path) const
{
    return GetPathSelectionType(path) == SelectionType::Exclude;
}

bool YSelectionManager::PathMatchesInclude(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return MatchesInclude(NodesOnPath(*m_root, components));
}

bool YSelectionManager::PathMatchesExclude(const Components& components, bool& reportable) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return MatchesExclude(NodesOnPath(*m_root, components), reportable);
}

bool YSelectionManager::AllChildrenOfPathAreExcludedNotReportably(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return AllChildrenAreExcludedNotReportably(NodesOnPath(*m_root, components));
}

bool YSelectionManager::AnyIncludesApplyBelowPath(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return AnyIncludesApplyBelow(NodesOnPath(*m_root, components));
}

bool YSelectionManager::IsAnyExplicitSelectionBelowComponent(const Components& components,
                                                             unsigned long long atOrBelowIndex) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    if (components.empty())
        KRT_RAISE(ErrorCode::InvalidArgument,
                  "IsAnyExplicitSelectionBelowComponent cannot be applied to an empty path");
    if (atOrBelowIndex >= components.size()) {
        KRT_RAISE(ErrorCode::InvalidArgument, "atOrBelowIndex out of range atOrBelowIndex: "
                                                  << atOrBelowIndex << " path: " << components);
    }
    return IsSelectedExplicitlyFrom(NodesOnPath(*m_root, components), atOrBelowIndex);
}

bool YSelectionManager::MatchesInclude(const NodesOnPath& nodes) const
{
    if (nodes.components.empty())
        KRT_RAISE_AS("PathMatchesInclude", MessageType::General, ErrorCode::InvalidArgument,
                     "PathMatchesInclude cannot be applied to an empty path");
    const std::size_t last = nodes.components.size() - 1;
    const YString& leaf = nodes.components[last];
    if (m_root->MatchesInclude(leaf, last == 0)) {
        KRT_LOG(MessageType::SelectionQuery,
                "Leaf component " << leaf << " matches include at " << m_root->GetPath() << " (root)");
        return true;
    }
    for (std::size_t depth = 1; depth <= last && nodes.At(depth) != nullptr; ++depth) {
        const bool isParent = depth == last;
        if (nodes.At(depth)->MatchesInclude(leaf, isParent)) {
            KRT_LOG(MessageType::SelectionQuery,
                    "Leaf component " << leaf << " matches include at " << nodes.At(depth)->GetPath()
                                      << " checkNonRecursiveDescriptors was set to " << isParent);
            return true;
        }
    }
    KRT_LOG(MessageType::SelectionQuery, "Leaf component " << leaf << " matches no includes.");
    return false;
}

bool YSelectionManager::MatchesExclude(const NodesOnPath& nodes, bool& reportable) const
{
    for (std::size_t depth = 0; depth < nodes.components.size() && nodes.At(depth) != nullptr; ++depth) {
        if (!nodes.At(depth)->m_excludes.empty() && NodeExcludes(nodes, depth, reportable))
            return true;
    }
    KRT_LOG(MessageType::SelectionQuery, "No components in path match any exclude");
    return false;
}

bool YSelectionManager::NodeExcludes(const NodesOnPath& nodes, std::size_t depth, bool& reportable) const
{
    const Node& node = *nodes.At(depth);
    const bool isRoot = depth == 0;
    for (std::size_t i = depth; i < nodes.components.size(); ++i) {
        if (!node.MatchesExclude(nodes.components[i], i == depth, reportable))
            continue;
        const bool ignored = IsSelectedExplicitlyFrom(nodes, i);
        KRT_LOG(MessageType::SelectionQuery,
                "Component " << nodes.components[i] << " at index " << i << " matches exclude at "
                             << node.GetPath()
                             << (!isRoot   ? ""
                                 : ignored ? " (root)"
                                           : " (root) ")
                             << " reportable: " << reportable
                             << (ignored ? " But since that component is explicitly selected"
                                           " this exclude will be ignored."
                                         : ""));
        if (!ignored)
            return true;
    }
    return false;
}

bool YSelectionManager::AllChildrenAreExcludedNotReportably(const NodesOnPath& nodes) const
{
    const Node* const node = nodes.At(nodes.components.size());
    if (node == nullptr) {
        KRT_LOG(MessageType::SelectionQuery,
                "Some children of " << nodes.Deepest().GetPath() << " may be included or excluded reportably."
                                    << " (did not find a node for the leaf component of the path)");
        return false;
    }
    if (node->AllChildrenAreExcludedNotReportably()) {
        KRT_LOG(MessageType::SelectionQuery,
                "All children of " << node->GetPath() << " are not excluded reportably.");
        return true;
    }
    KRT_LOG(MessageType::SelectionQuery,
            "Some children of " << node->GetPath() << " may be included or excluded reportably.");
    return false;
}

bool YSelectionManager::AnyIncludesApplyBelow(const NodesOnPath& nodes) const
{
    if (nodes.components.empty())
        KRT_RAISE_AS("AnyIncludesApplyBelowPath", MessageType::General, ErrorCode::InvalidArgument,
                     "AnyIncludesApplyBelowPath cannot be applied to an empty path");
    if (m_root->HasAnyRecursiveIncludes()) {
        KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                 << m_root->GetPath() << " (root) has recursive includes");
        return true;
    }
    const std::size_t last = nodes.components.size();
    for (std::size_t depth = 1; depth < last && nodes.At(depth) != nullptr; ++depth) {
        if (nodes.At(depth)->HasAnyRecursiveIncludes()) {
            KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                     << nodes.At(depth)->GetPath()
                                                     << " has recursive includes");
            return true;
        }
    }
    if (nodes.At(last) != nullptr && nodes.At(last)->HasAnyIncludesBelow()) {
        KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                 << nodes.At(last)->GetPath()
                                                 << " has includes at or below it");
        return true;
    }
    KRT_LOG(MessageType::SelectionQuery, "No includes apply below path.");
    return false;
}

bool YSelectionManager::IsSelectedExplicitlyFrom(const NodesOnPath& nodes, std::size_t index) const
{
    for (std::size_t i = index; i < nodes.components.size() && nodes.At(i) != nullptr; ++i) {
        if (nodes.At(i)->MatchesExplicitExactNonRecursiveInclude(nodes.components[i]))
            return true;
        if (nodes.At(i + 1) != nullptr && nodes.At(i + 1)->SelectsAllExplicitly())
            return true;
    }
    return false;
}

namespace {

// The visitors of a walk. Each level gets a copy of the visitor of the level above, in its current state.
// Values that the visitor changes at a level never return to the level above.
template <class Visitor>
class VisitorsByLevel
{
public:
    explicit VisitorsByLevel(const Visitor& visitor) : m_visitors{visitor} {}

    /// Returns a new copy for one node of the level; at the start, the given visitor.
    Visitor& ForNode(std::size_t level)
    {
        if (level != 0)
            m_visitors.resize(level);
        return ForSiblings(level);
    }
    /// Returns the copy for all nodes with the same parent.
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
    for (Walk<const Node> walk(*this); walk.Enter();) {
        if (walk.Current().RulesOfType(type)->empty())
            continue;
        if (PathVisitor(visitor)(walk.Current().GetPath())) // unchanged, since no level above has used it
            return true;
        walk.SkipChildren();
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
    for (Walk<const Node> walk(*this); walk.Enter();) {
        const Node& node = walk.Current();
        const RuleVisitor& visitOwn = visitors.ForNode(walk.Depth());
        std::optional<YPath> path; // only nodes with rules need one
        for (const SelectionType type : types) {
            for (const YSelectionDescriptor& rule : *node.RulesOfType(type)) {
                if (!path)
                    path = node.GetPath();
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
    Walk<const Node> walk(start);
    for (walk.Enter(); walk.Enter();)
        Krt::CallFunction(visitors.ForSiblings(walk.Depth() - 1), &walk.Current());
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

} // namespace Backup::File
