#include "Backup/File/YSelectionManager.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"

namespace Backup::File {

using Krt::File::YPath;
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
        node.PruneNodeIncludes(rule, true);
        node.PruneNodeExcludes(rule);
        node.PruneRedundantChildren(rule);
    } catch (...) {
        node.Insert(std::move(prepared)); // rules may be gone that it is to cover
        throw;
    }
    node.Insert(std::move(prepared));
    if (rule.IsInclude())
        KRT_LOG(MessageType::SelectionBuild, "Added include " << rule);
    else if (rule.IsExclude())
        KRT_LOG(MessageType::SelectionBuild, "Added exclude " << rule);
    return true;
}

// The node that these components lead to from one that has none of them.
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
    child->RulesChanged(-static_cast<long long>(child->m_branch.includes));
    parent->EraseChild(*child);
    // The word is about the node that went, the path that of the one above it.
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
        if (rule.IsInclude()) { // callers rely on it that a single exclude stays
            node->m_includes.Erase(*stored);
            node->RulesChanged(-1);
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

} // namespace Backup::File
