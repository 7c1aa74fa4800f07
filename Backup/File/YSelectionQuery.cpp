// What a selection tree answers about paths, and the walks through it.
// An error names the source file of its class, and these are functions of YSelectionManager and its nodes.
#define KRT_SOURCE_FILE "Backup/File/YSelectionManager.cpp"

#include "Backup/File/YSelectionTrace.h"

#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Log/LogSite.h"

#include <optional>

namespace Backup::File {

using Krt::File::YPath;
using Krt::Time::YDuration;
using Node = YSelectionManager::YSelectionManagerNode;
using SelectionType = YSelectionManager::SelectionType;

SelectionType YSelectionManager::GetPathSelectionType(const YPath& path) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return Decide(path, NodesOnPath(*m_root, path.PopulateComponents()), NoTrace());
}

YSelectionExplanation YSelectionManager::Explain(const YPath& path) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    const NodesOnPath nodes(*m_root, path.PopulateComponents());
    PathTrace::State state;
    const PathTrace trace(state);
    state.explanation.answer = Decide(path, nodes, trace);
    // What the decision did not get to.
    const std::size_t count = nodes.components.size();
    for (std::size_t depth = state.including ? *state.including + 1 : count;
         depth < count && nodes.At(depth) != nullptr; ++depth) {
        if (nodes.At(depth)->MatchesInclude(nodes.components.back(), depth + 1 == count))
            trace.Include(nodes, depth);
    }
    for (std::size_t depth = state.excluding ? state.excluding->depth : count;
         depth < count && nodes.At(depth) != nullptr; ++depth) {
        const bool isFirst = depth == state.excluding->depth;
        for (std::size_t i = isFirst ? state.excluding->component + 1 : depth; i < count; ++i) {
            bool reportable = false;
            if (nodes.At(depth)->MatchesExclude(nodes.components[i], i == depth, reportable))
                trace.Exclude(nodes, depth, i, IsSelectedExplicitlyFrom(nodes, i, trace));
        }
    }
    return std::move(state.explanation);
}

template <class Trace>
SelectionType YSelectionManager::Decide(const YPath& path, const NodesOnPath& nodes, Trace trace) const
{
    using Reason = YSelectionExplanation::Reason;
    bool reportable = false;
    KRT_LOG(MessageType::SelectionBuild, "GetPathSelectionType called for: " << path);
    const bool included = MatchesInclude(nodes, trace);
    const bool excluded = MatchesExclude(nodes, reportable, trace);
    if (included && !excluded) {
        KRT_LOG(MessageType::SelectionBuild, "Path Include: " << path);
        trace.Decided(Reason::Included);
        return SelectionType::Include;
    }
    if (included && reportable) {
        KRT_LOG(MessageType::SelectionBuild, "Path is Exclude: " << path);
        trace.Decided(Reason::Excluded);
        return SelectionType::Exclude;
    }
    if (included) {
        KRT_LOG(MessageType::SelectionBuild, "Path is not-reportable exclude: " << path);
        trace.Decided(Reason::ExcludedSilently);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    // A path that no include matches may be excluded reportably. A walk still continues to what is explicitly
    // included below it.
    if (excluded && !reportable) {
        KRT_LOG(MessageType::SelectionBuild,
                "Path NotSelectedDoNotRecurse (not included but matches exclude): " << path);
        trace.Decided(Reason::ExcludedSilently);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    if (AllChildrenAreExcludedNotReportably(nodes)) {
        KRT_LOG(MessageType::SelectionBuild,
                "Path NotSelectedDoNotRecurse (all children excluded): " << path);
        trace.EntriesExcluded(nodes);
        trace.Decided(Reason::EntriesExcluded);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    if (AnyIncludesApplyBelow(nodes, trace)) {
        KRT_LOG(MessageType::SelectionBuild, "Path NotSelectedDoRecurse (includes below path): " << path);
        trace.Decided(Reason::EntriesMayBeIncluded);
        return SelectionType::NotSelectedDoRecurse;
    }
    KRT_LOG(MessageType::SelectionBuild, "Path NotSelectedDoNotRecurse (fall through): " << path);
    trace.Decided(Reason::NothingIncludes);
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
    return MatchesInclude(NodesOnPath(*m_root, components), NoTrace());
}

bool YSelectionManager::PathMatchesExclude(const Components& components, bool& reportable) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return MatchesExclude(NodesOnPath(*m_root, components), reportable, NoTrace());
}

bool YSelectionManager::AllChildrenOfPathAreExcludedNotReportably(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return AllChildrenAreExcludedNotReportably(NodesOnPath(*m_root, components));
}

bool YSelectionManager::AnyIncludesApplyBelowPath(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return AnyIncludesApplyBelow(NodesOnPath(*m_root, components), NoTrace());
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
    return IsSelectedExplicitlyFrom(NodesOnPath(*m_root, components), atOrBelowIndex, NoTrace());
}

template <class Trace>
bool YSelectionManager::MatchesInclude(const NodesOnPath& nodes, Trace trace) const
{
    if (nodes.components.empty())
        KRT_RAISE_AS("PathMatchesInclude", MessageType::General, ErrorCode::InvalidArgument,
                     "PathMatchesInclude cannot be applied to an empty path");
    const std::size_t last = nodes.components.size() - 1;
    const YString& leaf = nodes.components[last];
    if (m_root->MatchesInclude(leaf, last == 0)) {
        KRT_LOG(MessageType::SelectionQuery,
                "Leaf component " << leaf << " matches include at " << m_root->GetPath() << " (root)");
        trace.Include(nodes, 0);
        return true;
    }
    for (std::size_t depth = 1; depth <= last && nodes.At(depth) != nullptr; ++depth) {
        const bool isParent = depth == last;
        if (nodes.At(depth)->MatchesInclude(leaf, isParent)) {
            KRT_LOG(MessageType::SelectionQuery,
                    "Leaf component " << leaf << " matches include at " << nodes.At(depth)->GetPath()
                                      << " checkNonRecursiveDescriptors was set to " << isParent);
            trace.Include(nodes, depth);
            return true;
        }
    }
    KRT_LOG(MessageType::SelectionQuery, "Leaf component " << leaf << " matches no includes.");
    return false;
}

template <class Trace>
bool YSelectionManager::MatchesExclude(const NodesOnPath& nodes, bool& reportable, Trace trace) const
{
    for (std::size_t depth = 0; depth < nodes.components.size() && nodes.At(depth) != nullptr; ++depth) {
        if (!nodes.At(depth)->m_excludes.empty() && NodeExcludes(nodes, depth, reportable, trace))
            return true;
    }
    KRT_LOG(MessageType::SelectionQuery, "No components in path match any exclude");
    return false;
}

template <class Trace>
bool YSelectionManager::NodeExcludes(const NodesOnPath& nodes, std::size_t depth, bool& reportable,
                                     Trace trace) const
{
    const Node& node = *nodes.At(depth);
    const bool isRoot = depth == 0;
    // A match of a component that is known to be selected explicitly has no effect other than its record.
    const auto isRecorded = [] {
        return Trace::RecordsAll || Krt::Log::IsLogged(MessageType::SelectionQuery);
    };
    // Only recursive excludes match further components than the one in their own directory.
    const std::size_t end = node.m_excludes.HasRecursive() ? nodes.components.size() : depth + 1;
    for (std::size_t i = depth; i < end; ++i) {
        if (i < nodes.KnownExplicitEnd() && !isRecorded()) {
            i = nodes.KnownExplicitEnd() - 1;
            continue;
        }
        if (!node.MatchesExclude(nodes.components[i], i == depth, reportable))
            continue;
        const bool ignored = IsSelectedExplicitlyFrom(nodes, i, trace);
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
        trace.Exclude(nodes, depth, i, ignored);
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

template <class Trace>
bool YSelectionManager::AnyIncludesApplyBelow(const NodesOnPath& nodes, Trace trace) const
{
    if (nodes.components.empty())
        KRT_RAISE_AS("AnyIncludesApplyBelowPath", MessageType::General, ErrorCode::InvalidArgument,
                     "AnyIncludesApplyBelowPath cannot be applied to an empty path");
    if (m_root->HasAnyRecursiveIncludes()) {
        KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                 << m_root->GetPath() << " (root) has recursive includes");
        trace.IncludeBelow(nodes, 0);
        return true;
    }
    const std::size_t last = nodes.components.size();
    for (std::size_t depth = 1; depth < last && nodes.At(depth) != nullptr; ++depth) {
        if (nodes.At(depth)->HasAnyRecursiveIncludes()) {
            KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                     << nodes.At(depth)->GetPath()
                                                     << " has recursive includes");
            trace.IncludeBelow(nodes, depth);
            return true;
        }
    }
    if (nodes.At(last) != nullptr && nodes.At(last)->HasAnyIncludesBelow()) {
        KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                 << nodes.At(last)->GetPath()
                                                 << " has includes at or below it");
        trace.IncludeBelow(nodes, last);
        return true;
    }
    KRT_LOG(MessageType::SelectionQuery, "No includes apply below path.");
    return false;
}

template <class Trace>
bool YSelectionManager::IsSelectedExplicitlyFrom(const NodesOnPath& nodes, std::size_t index,
                                                 Trace trace) const
{
    if (index >= nodes.ExplicitEnd())
        return false;
    trace.Explicit(nodes, index);
    return true;
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
