#include "Backup/File/YSelectionManager.h"

#include "Krt/Container/YSet.h"
#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"
#include "Krt/Log/LogSite.h"

namespace Backup::File {

using Krt::File::YPath;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Krt::Time::YDuration;
using Node = YSelectionManager::YSelectionManagerNode;

YSelectionManager::YSelectionManager() : m_root(std::make_unique<Node>()) {}

YSelectionManager::YSelectionManager(const YSelectionManager& other)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    const auto otherLock = other.m_lock.WriteLock(YDuration::Zero());
    m_root = Node::CopyRecursive(*other.m_root, nullptr);
}

YSelectionManager::YSelectionManager(YSelectionManager&& other)
{
    Swap(other);
}

YSelectionManager& YSelectionManager::operator=(YSelectionManager other)
{
    Swap(other);
    return *this;
}

YSelectionManager::~YSelectionManager() = default;

void YSelectionManager::Swap(YSelectionManager& other)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    const auto otherLock = other.m_lock.WriteLock(YDuration::Zero());
    m_root.swap(other.m_root);
}

bool YSelectionManager::operator==(const YSelectionManager& other) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    const auto otherLock = other.m_lock.ReadLock(YDuration::Zero());
    return *m_root == *other.m_root;
}

bool YSelectionManager::Add(const YSelectionPathDescriptor& rule)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    KRT_RAISE_UNLESS(!rule.IsInclude() || !rule.GetPath().IsEmpty(), ErrorCode::InvalidArgument,
                     "Cannot add root include using empty path on Unix.  Must use root path (/).  " << rule);
    KRT_LOG(MessageType::SelectionBuild, "YSelectionManager::Add called for: " << rule);
    const Components& components = rule.GetPath().PopulateComponents();
    const auto [nearest, depth] = FindDeepest(components);
    if (IsRedundantFrom(nearest, depth == components.size(), rule)) {
        KRT_LOG(MessageType::SelectionBuild, "Not adding redundant descriptor: " << rule);
        return false;
    }
    Node::Rules::Prepared prepared = Node::Rules::Prepare(rule);
    Node& node = MakeNode(*nearest, std::span(components).subspan(depth));
    try {
        node.PruneRules(SelectionType::Include, rule, false);
        node.PruneRules(SelectionType::Exclude, rule, false);
        node.PruneRedundantChildren(rule);
    } catch (...) {
        node.Insert(std::move(prepared)); // rules that it would cover may have been erased
        throw;
    }
    node.Insert(std::move(prepared));
    if (rule.IsInclude())
        KRT_LOG(MessageType::SelectionBuild, "Added include " << rule);
    else if (rule.IsExclude())
        KRT_LOG(MessageType::SelectionBuild, "Added exclude " << rule);
    return true;
}

// Returns the node of these components below a node that has no child with the first component's name.
Node& YSelectionManager::MakeNode(Node& above, std::span<const YString> components)
{
    Node* node = &above;
    try {
        for (const YString& component : components)
            node = &node->AddChild(component);
    } catch (...) {
        node->EraseUpwardsWhileEmpty(&above);
        throw;
    }
    return *node;
}

bool YSelectionManager::Add(const YPath& path, const YSelectionDescriptor& rule)
{
    return Add(YSelectionPathDescriptor(path, rule));
}

bool YSelectionManager::Add(const YPath& path, const Krt::Match::Descriptor& descriptor,
                            RecursionType recursionType, SelectionType selectionType, bool reportExclude)
{
    return Add(YSelectionPathDescriptor(path, descriptor, recursionType, selectionType, reportExclude));
}

bool YSelectionManager::IsDescriptorRedundant(const YSelectionPathDescriptor& rule) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    const auto [nearest, found] = FindNode(rule.GetPath(), false);
    return IsRedundantFrom(nearest, found, rule);
}

bool YSelectionManager::IsRedundantFrom(const YSelectionManagerNode* nearest, bool isOwnNode,
                                        const YSelectionDescriptor& rule)
{
    for (const Node* node = nearest; node != nullptr; node = node->m_parent, isOwnNode = false) {
        if (node->DoesNodePruneDescriptor(rule, isOwnNode))
            return true;
    }
    return false;
}

void YSelectionManager::Delete(const YPath& path)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    KRT_LOG(MessageType::SelectionBuild, "YSelectionManager::Delete called for: " << path);
    const Components& components = path.PopulateComponents();
    if (components.empty()) {
        Clear();
        return;
    }
    const auto [parent, depth] = FindDeepest(std::span(components).first(components.size() - 1));
    if (depth + 1 != components.size())
        return;
    Node* const child = parent->FindChild(components.back());
    if (child == nullptr)
        return;
    for (Node* node = parent; node != nullptr; node = node->m_parent)
        node->m_branch.includes -= child->m_branch.includes;
    parent->ForgetBranches(); // the parent may be empty afterwards
    parent->EraseChild(*child);
    // Logs the parent's path, although the message says that the child was erased: the log format is fixed.
    KRT_LOG(MessageType::SelectionBuild, "Erased node: " << parent->GetPath());
}

bool YSelectionManager::Delete(const YSelectionPathDescriptor& rule)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    Node* node = FindNode(rule.GetPath(), false).first;
    if (const Node::Rules* const rules = node->RulesOfType(rule.GetSelectionType())) {
        const auto stored = rules->Find(rule);
        if (stored == rules->end())
            return false;
        if (rule.IsInclude()) { // callers rely on a single exclude staying in place
            const YSelectionDescriptor* const erased = &*stored;
            node->m_includes.Erase(*erased);
            node->RulesErased({&erased, 1}, true);
        }
    }
    node->EraseUpwardsWhileEmpty();
    return true;
}

std::pair<Node*, bool> YSelectionManager::FindNode(const YPath& path, bool throwIfMissing) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    return FindNode(path.PopulateComponents(), throwIfMissing);
}

std::pair<Node*, bool> YSelectionManager::FindNode(const Components& components, bool throwIfMissing) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    const auto [node, depth] = FindDeepest(components);
    const bool isFound = depth == components.size();
    KRT_RAISE_UNLESS(isFound || !throwIfMissing, ErrorCode::NotFound);
    return {node, isFound};
}

std::pair<Node*, std::size_t> YSelectionManager::FindDeepest(std::span<const YString> components) const
{
    Node* node = m_root.get();
    std::size_t depth = 0;
    for (; depth < components.size(); ++depth) {
        Node* const child = node->FindChild(components[depth]);
        if (child == nullptr)
            break;
        node = child;
    }
    return {node, depth};
}

void YSelectionManager::Clear()
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    m_root->Clear();
}

std::set<YPath> YSelectionManager::GetIncludeTops(const YPath& start) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    std::set<YPath> tops;
    VisitPaths(SelectionType::Include, start, [&](const YPath& path) {
        if (path.IsEmpty())
            KRT_RAISE_AS("operator()", MessageType::General, ErrorCode::InvalidArgument,
                         "Path should never be empty on unix.  Even for the root node is should be /");
        // The root has no answer of its own. Any other top counts unless it is excluded or cut off.
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

// Walks down the nodes, so that an ancestor without rules needs no path.
void YSelectionManager::VisitRulesAbove(const YPath& path, const RuleVisitor& visitor) const
{
    const bool hasParent = !path.IsEmpty() && path != "/" && !path.RemoveVolume().IsEmpty();
    const YPath parent = hasParent ? path.RemoveFile() : YPath();
    const Node* node = m_root.get();
    node->VisitPathsAndDescriptors(visitor, false);
    if (!hasParent)
        return;
    if (parent.GetVolume().IsEmpty()) // the top is "/", whose node is that of the empty path
        node->VisitPathsAndDescriptors(visitor, false);
    bool isMissing = false;
    for (const YString& component : parent.PopulateComponents()) {
        const Node* const child = isMissing ? nullptr : node->FindChild(component);
        isMissing = child == nullptr;
        if (!isMissing)
            node = child;
        node->VisitPathsAndDescriptors(visitor, false);
    }
}

std::set<YSelectionPathDescriptor> YSelectionManager::GetSelections(const YPath& path) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    std::set<YSelectionPathDescriptor> selections;
    VisitRulesAbove(path, [&](const YPath& rulePath, const YSelectionDescriptor& rule) {
        if (rule.IsRecursive())
            selections.insert(YSelectionPathDescriptor(rulePath, rule));
        return false;
    });
    VisitPathsAndDescriptors(
        path,
        [&](const YPath& rulePath, const YSelectionDescriptor& rule) {
            // If the path has no node, the walk starts above it.
            if (path.IsEmpty() || rulePath.IsChildOf(path, true))
                selections.insert(YSelectionPathDescriptor(rulePath, rule));
            return false;
        },
        true);
    return selections;
}

YObject YSelectionManager::ToJSON(const YPath& start) const
{
    const auto lock = m_lock.ReadLock(YDuration::Zero());
    const auto rulesOfType = [&](SelectionType type) {
        // Sorted by the bytes of the path, which is not the order of the walk.
        std::set<std::pair<YString, YSelectionDescriptor>> rules;
        VisitPathsAndDescriptors(
            type, start,
            [&](const YPath& path, const YSelectionDescriptor& rule) {
                rules.emplace(path, rule);
                return false;
            },
            true);
        YArray array;
        array.reserve(rules.size());
        for (const auto& [path, rule] : rules) {
            YObject element;
            element.Set<YString>("path", path);
            element.Set<YObject>("descriptor", rule.ToJSON());
            array.push_back(YValue::Create<YObject>(std::move(element)));
        }
        return array;
    };
    YObject json;
    json.Set<YArray>("includes", rulesOfType(SelectionType::Include));
    json.Set<YArray>("excludes", rulesOfType(SelectionType::Exclude));
    return json;
}

void YSelectionManager::FromJSON(const YObject& json)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    Clear();
    for (const char* key : {"includes", "excludes"}) {
        for (const auto& element : json.Get<YArray>(key, MessageType::Runtime)) {
            const YObject& entry = element->AsObject();
            const YString& path = entry.Get<YString>("path", MessageType::Runtime);
            YSelectionDescriptor rule;
            rule.FromJSON(entry.Get<YObject>("descriptor", MessageType::Runtime));
            Add(YPath(path), rule);
        }
    }
}

void YSelectionManager::CopyDescriptorsFromPath(const YSelectionManager& source, const YPath& sourcePath,
                                                const YPath& destinationPath)
{
    CopyDescriptorsFromPathInternal(source, sourcePath, destinationPath, true);
}

void YSelectionManager::CopyOnlyIncludesFromPath(const YSelectionManager& source, const YPath& sourcePath,
                                                 const YPath& destinationPath)
{
    CopyDescriptorsFromPathInternal(source, sourcePath, destinationPath, false);
}

void YSelectionManager::CopyDescriptorsFromPathInternal(const YSelectionManager& source,
                                                        const YPath& sourcePath, const YPath& destinationPath,
                                                        bool copyExcludes)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    const auto sourceLock = source.m_lock.ReadLock(YDuration::Zero());
    if (&source == this)
        KRT_RAISE(ErrorCode::InvalidState, "Source and destination selection manager may not be the same.");
    if (destinationPath.IsChildOf(sourcePath, false))
        KRT_RAISE(ErrorCode::InvalidArgument, "Cannot recursively copy descriptors from parent to child");
    const YPath sourceParent = sourcePath.GetParent();
    source.VisitRulesAbove(sourcePath, [&](const YPath& rulePath, const YSelectionDescriptor& rule) {
        if (copyExcludes || !rule.IsExclude())
            AddCopyFromAbove(rule, rulePath == sourceParent, sourcePath, destinationPath);
        return false;
    });
    source.VisitPathsAndDescriptors(
        sourcePath,
        [&](const YPath& rulePath, const YSelectionDescriptor& rule) {
            // If the path has no node, the walk starts above it.
            if ((copyExcludes || !rule.IsExclude()) && rulePath.IsChildOf(sourcePath, true))
                Add(destinationPath.Append(rulePath.RemoveLeading(sourcePath)), rule);
            return false;
        },
        true);
}

void YSelectionManager::AddCopyFromAbove(const YSelectionDescriptor& rule, bool atParent,
                                         const YPath& sourcePath, const YPath& destinationPath)
{
    // A recursive rule is copied to the destination. The explicit flag applies to the old path only.
    if (rule.IsRecursive()) {
        YSelectionDescriptor copy = rule;
        copy.SetExplicitSelection(false);
        Add(destinationPath, copy);
    } else if (!atParent) {
        return;
    }
    // A rule that matches the source path becomes a rule that names the destination path.
    if (!Krt::Match::Check(YPath::GetFileFromPath(sourcePath, "/"), rule.GetDescriptor()))
        return;
    const Krt::Match::ExactDescriptor name(YPath::GetFileFromPath(destinationPath, "/"),
                                           rule.GetDescriptor().IsCaseSensitive());
    YSelectionPathDescriptor named(destinationPath.RemoveFile(), name, RecursionType::NonRecursive,
                                   rule.GetSelectionType(), rule.GetReportExclude());
    if (atParent && !rule.IsRecursive() && rule.GetExplicitSelection())
        named.SetExplicitSelection(true);
    Add(named);
}

} // namespace Backup::File
