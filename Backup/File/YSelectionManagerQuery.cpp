// The answers of the selection tree about paths.
// Errors of all sources of YSelectionManager report one path.
#define KRT_SOURCE_FILE "Backup/File/YSelectionManager.cpp"

#include "Backup/File/YSelectionManager.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"

#include <boost/container/small_vector.hpp>

namespace Backup::File {

using Krt::File::YPath;
using Krt::Time::YDuration;
using Node = YSelectionManager::YSelectionManagerNode;
using SelectionType = YSelectionManager::SelectionType;

class YSelectionManager::Way
{
public:
    Way(const YSelectionManagerNode& root, const Components& path) : components(path)
    {
        m_nodes.push_back(&root);
        for (const YString& component : components) {
            const Node* const child = m_nodes.back()->FindChild(component);
            if (child == nullptr)
                break;
            m_nodes.push_back(child);
        }
    }

    /// The node reached by so many components; null if there is none.
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
    const Way way(*m_root, path.PopulateComponents());
    const bool included = MatchesInclude(way);
    const bool excluded = MatchesExclude(way, reportable);
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
    // A reportable exclude of something that nothing includes doesn't keep a walk from going on to what is
    // explicitly included below.
    if (excluded && !reportable) {
        KRT_LOG(MessageType::SelectionBuild,
                "Path NotSelectedDoNotRecurse (not included but matches exclude): " << path);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    if (AllChildrenAreExcludedNotReportably(way)) {
        KRT_LOG(MessageType::SelectionBuild,
                "Path NotSelectedDoNotRecurse (all children excluded): " << path);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    if (AnyIncludesApplyBelow(way)) {
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
    return MatchesInclude(Way(*m_root, components));
}

bool YSelectionManager::PathMatchesExclude(const Components& components, bool& reportable) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return MatchesExclude(Way(*m_root, components), reportable);
}

bool YSelectionManager::AllChildrenOfPathAreExcludedNotReportably(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return AllChildrenAreExcludedNotReportably(Way(*m_root, components));
}

bool YSelectionManager::AnyIncludesApplyBelowPath(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return AnyIncludesApplyBelow(Way(*m_root, components));
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
    return IsAnyExplicitSelectionBelow(Way(*m_root, components), atOrBelowIndex);
}

bool YSelectionManager::MatchesInclude(const Way& way) const
{
    if (way.components.empty())
        KRT_RAISE_AS("PathMatchesInclude", MessageType::General, ErrorCode::InvalidArgument,
                     "PathMatchesInclude cannot be applied to an empty path");
    const std::size_t last = way.components.size() - 1;
    const YString& leaf = way.components[last];
    if (m_root->MatchesInclude(leaf, last == 0)) {
        KRT_LOG(MessageType::SelectionQuery,
                "Leaf component " << leaf << " matches include at " << m_root->GetPath() << " (root)");
        return true;
    }
    for (std::size_t depth = 1; depth <= last && way.At(depth) != nullptr; ++depth) {
        const bool isParent = depth == last;
        if (way.At(depth)->MatchesInclude(leaf, isParent)) {
            KRT_LOG(MessageType::SelectionQuery,
                    "Leaf component " << leaf << " matches include at " << way.At(depth)->GetPath()
                                      << " checkNonRecursiveDescriptors was set to " << isParent);
            return true;
        }
    }
    KRT_LOG(MessageType::SelectionQuery, "Leaf component " << leaf << " matches no includes.");
    return false;
}

bool YSelectionManager::MatchesExclude(const Way& way, bool& reportable) const
{
    for (std::size_t depth = 0; depth < way.components.size() && way.At(depth) != nullptr; ++depth) {
        if (!way.At(depth)->m_excludes.empty() && NodeExcludes(way, depth, reportable))
            return true;
    }
    KRT_LOG(MessageType::SelectionQuery, "No components in path match any exclude");
    return false;
}

bool YSelectionManager::NodeExcludes(const Way& way, std::size_t depth, bool& reportable) const
{
    const Node& node = *way.At(depth);
    const bool isRoot = depth == 0;
    for (std::size_t i = depth; i < way.components.size(); ++i) {
        if (!node.MatchesExclude(way.components[i], i == depth, reportable))
            continue;
        const bool ignored = IsAnyExplicitSelectionBelow(way, i);
        KRT_LOG(MessageType::SelectionQuery,
                "Component " << way.components[i] << " at index " << i << " matches exclude at "
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

bool YSelectionManager::AllChildrenAreExcludedNotReportably(const Way& way) const
{
    const Node* const node = way.At(way.components.size());
    if (node == nullptr) {
        KRT_LOG(MessageType::SelectionQuery,
                "Some children of " << way.Deepest().GetPath() << " may be included or excluded reportably."
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

bool YSelectionManager::AnyIncludesApplyBelow(const Way& way) const
{
    if (way.components.empty())
        KRT_RAISE_AS("AnyIncludesApplyBelowPath", MessageType::General, ErrorCode::InvalidArgument,
                     "AnyIncludesApplyBelowPath cannot be applied to an empty path");
    if (m_root->HasAnyRecursiveIncludes()) {
        KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                 << m_root->GetPath() << " (root) has recursive includes");
        return true;
    }
    const std::size_t last = way.components.size();
    for (std::size_t depth = 1; depth < last && way.At(depth) != nullptr; ++depth) {
        if (way.At(depth)->HasAnyRecursiveIncludes()) {
            KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                     << way.At(depth)->GetPath()
                                                     << " has recursive includes");
            return true;
        }
    }
    if (way.At(last) != nullptr && way.At(last)->HasAnyIncludesBelow()) {
        KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                 << way.At(last)->GetPath()
                                                 << " has includes at or below it");
        return true;
    }
    KRT_LOG(MessageType::SelectionQuery, "No includes apply below path.");
    return false;
}

bool YSelectionManager::IsAnyExplicitSelectionBelow(const Way& way, std::size_t index) const
{
    for (std::size_t i = index; i < way.components.size() && way.At(i) != nullptr; ++i) {
        if (way.At(i)->MatchesExplicitExactNonRecursiveInclude(way.components[i]))
            return true;
        if (way.At(i + 1) != nullptr && way.At(i + 1)->SelectsAllExplicitly())
            return true;
    }
    return false;
}

} // namespace Backup::File
