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
    if (IsDescriptorRedundant(rule)) {
        KRT_LOG(MessageType::SelectionBuild, "Not adding redundant descriptor: " << rule);
        return false;
    }
    Node* node = m_root.get();
    for (const YString& component : rule.GetPath().PopulateComponents())
        node = &node->GetOrAddChild(component);
    node->PruneNodeIncludes(rule, true);
    node->PruneNodeExcludes(rule);
    node->PruneRedundantChildren(rule);
    node->Insert(rule);
    KRT_LOG(MessageType::SelectionBuild, (rule.IsInclude() ? "Added include " : "Added exclude ") << rule);
    return true;
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
    bool ownNode = found;
    for (const Node* node = nearest; node != nullptr; node = node->m_parent, ownNode = false) {
        if (node->DoesNodePruneDescriptor(rule, ownNode))
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
    const auto [parent, found] = FindNode(std::span(components).first(components.size() - 1));
    if (!found)
        return;
    const auto child = parent->m_children.find(components.back());
    if (child == parent->m_children.end())
        return;
    child->second->RulesChanged(-static_cast<long long>(child->second->m_includesBelow));
    parent->m_children.erase(child);
    // The word is about the node that went, the path that of the one above it.
    KRT_LOG(MessageType::SelectionBuild, "Erased node: " << parent->GetPath());
}

bool YSelectionManager::Delete(const YSelectionPathDescriptor& rule)
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    Node* node = FindNode(rule.GetPath(), false).first;
    Node::Rules& rules = rule.IsInclude() ? node->m_includes : node->m_excludes;
    const auto stored = rules.Find(rule);
    if (stored == rules.end())
        return false;
    if (rule.IsInclude()) { // callers rely on it that a single exclude stays
        rules.Erase(stored);
        node->RulesChanged(-1);
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
    const auto result = FindNode(std::span(components));
    KRT_RAISE_UNLESS(result.second || !throwIfMissing, ErrorCode::NotFound);
    return result;
}

std::pair<Node*, bool> YSelectionManager::FindNode(std::span<const YString> components) const
{
    Node* node = m_root.get();
    for (const YString& component : components) {
        Node* const child = node->FindChild(component);
        if (child == nullptr)
            return {node, false};
        node = child;
    }
    return {node, true};
}

void YSelectionManager::Clear()
{
    const auto lock = m_lock.WriteLock(YDuration::Zero());
    m_root = std::make_unique<Node>();
}

void YSelectionManager::RaiseError(const char* function, unsigned int code, const YString& text)
{
    KRT_RAISE_AS(function, MessageType::General, code, text);
}

} // namespace Backup::File
