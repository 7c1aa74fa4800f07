// The answers of the selection tree about paths.
#include "Backup/File/YSelectionManager.h"

#include "Krt/Log/LogSite.h"

namespace Backup::File {

using Krt::File::YPath;
using Krt::Time::YDuration;
using Node = YSelectionManager::YSelectionManagerNode;
using SelectionType = YSelectionManager::SelectionType;

SelectionType YSelectionManager::GetPathSelectionType(const YPath& path) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    bool reportable = false;
    KRT_LOG(MessageType::SelectionBuild, "GetPathSelectionType called for: " << path);
    const Components& components = path.PopulateComponents();
    const bool included = PathMatchesInclude(components);
    const bool excluded = PathMatchesExclude(components, reportable);
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
    if (AllChildrenOfPathAreExcludedNotReportably(components)) {
        KRT_LOG(MessageType::SelectionBuild,
                "Path NotSelectedDoNotRecurse (all children excluded): " << path);
        return SelectionType::NotSelectedDoNotRecurse;
    }
    if (AnyIncludesApplyBelowPath(components)) {
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
    if (components.empty())
        RaiseError(__func__, ErrorCode::InvalidArgument,
                   "PathMatchesInclude cannot be applied to an empty path");
    const std::size_t last = components.size() - 1;
    const YString& leaf = components[last];
    if (m_root->MatchesInclude(leaf, last == 0)) {
        KRT_LOG(MessageType::SelectionQuery,
                "Leaf component " << leaf << " matches include at " << m_root->GetPath() << " (root)");
        return true;
    }
    const Node* node = m_root.get();
    for (std::size_t i = 0; i < last; ++i) {
        node = node->FindChild(components[i]);
        if (node == nullptr)
            break;
        const bool isParent = i + 1 == last;
        if (node->MatchesInclude(leaf, isParent)) {
            KRT_LOG(MessageType::SelectionQuery,
                    "Leaf component " << leaf << " matches include at " << node->GetPath()
                                      << " checkNonRecursiveDescriptors was set to " << isParent);
            return true;
        }
    }
    KRT_LOG(MessageType::SelectionQuery, "Leaf component " << leaf << " matches no includes.");
    return false;
}

bool YSelectionManager::PathMatchesExclude(const Components& components, bool& reportable) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    const Node* node = m_root.get();
    for (std::size_t depth = 0; depth < components.size(); ++depth) {
        if (depth > 0)
            node = node->FindChild(components[depth - 1]);
        if (node == nullptr)
            break;
        if (!node->m_excludes.empty() && NodeExcludes(*node, components, depth, reportable))
            return true;
    }
    KRT_LOG(MessageType::SelectionQuery, "No components in path match any exclude");
    return false;
}

bool YSelectionManager::NodeExcludes(const YSelectionManagerNode& node, const Components& components,
                                     std::size_t depth, bool& reportable) const
{
    const bool isRoot = depth == 0;
    for (std::size_t i = depth; i < components.size(); ++i) {
        if (!node.MatchesExclude(components[i], i == depth, reportable))
            continue;
        const bool ignored = IsAnyExplicitSelectionBelowComponent(components, i);
        KRT_LOG(MessageType::SelectionQuery,
                "Component " << components[i] << " at index " << i << " matches exclude at " << node.GetPath()
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

bool YSelectionManager::AllChildrenOfPathAreExcludedNotReportably(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    const auto [node, found] = FindNode(components, false);
    if (!found) {
        KRT_LOG(MessageType::SelectionQuery,
                "Some children of " << node->GetPath() << " may be included or excluded reportably."
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

bool YSelectionManager::AnyIncludesApplyBelowPath(const Components& components) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    if (components.empty())
        RaiseError(__func__, ErrorCode::InvalidArgument,
                   "AnyIncludesApplyBelowPath cannot be applied to an empty path");
    if (m_root->HasAnyRecursiveIncludes()) {
        KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                 << m_root->GetPath() << " (root) has recursive includes");
        return true;
    }
    const Node* node = m_root.get();
    for (std::size_t i = 0; i < components.size(); ++i) {
        node = node->FindChild(components[i]);
        if (node == nullptr)
            break;
        const bool isLast = i + 1 == components.size();
        if (!isLast && node->HasAnyRecursiveIncludes()) {
            KRT_LOG(MessageType::SelectionQuery,
                    "Includes apply below path because " << node->GetPath() << " has recursive includes");
            return true;
        }
        if (isLast && node->HasAnyIncludesBelow()) {
            KRT_LOG(MessageType::SelectionQuery, "Includes apply below path because "
                                                     << node->GetPath() << " has includes at or below it");
            return true;
        }
    }
    KRT_LOG(MessageType::SelectionQuery, "No includes apply below path.");
    return false;
}

bool YSelectionManager::IsAnyExplicitSelectionBelowComponent(const Components& components,
                                                             unsigned long long atOrBelowIndex) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    if (components.empty())
        RaiseError(__func__, ErrorCode::InvalidArgument,
                   "IsAnyExplicitSelectionBelowComponent cannot be applied to an empty path");
    if (atOrBelowIndex >= components.size()) {
        Krt::YStream text{YString()};
        text << "atOrBelowIndex out of range atOrBelowIndex: " << atOrBelowIndex << " path: " << components;
        RaiseError(__func__, ErrorCode::InvalidArgument, text);
    }
    const Node* node = m_root.get();
    for (std::size_t i = 0; i < components.size(); ++i) {
        const bool counts = i >= atOrBelowIndex;
        if (counts && node->MatchesExplicitExactNonRecursiveInclude(components[i]))
            return true;
        node = node->FindChild(components[i]);
        if (node == nullptr)
            return false;
        if (counts && node->SelectsAllExplicitly())
            return true;
    }
    return false;
}

} // namespace Backup::File
