#include "Backup/File/YSelectionManager.h"

#include "Backup/File/YSelectionChildren.h"
#include "Backup/File/YSelectionNodeWalk.h"
#include "Backup/File/YSelectionRulesBelow.h"

#include "Krt/Log/LogSite.h"

#include <algorithm>
#include <string>
#include <utility>

namespace Backup::File {

using Krt::File::YPath;
using Krt::Match::MatchType;
using Node = YSelectionManager::YSelectionManagerNode;

Node::YSelectionManagerNode() = default;

Node::YSelectionManagerNode(const YString& name, YSelectionManagerNode* parent)
    : m_name(name), m_parent(parent)
{}

Node::~YSelectionManagerNode()
{
    DestroyChildren();
}

void Node::Clear() noexcept
{
    m_includes.Clear();
    m_excludes.Clear();
    DestroyChildren();
    m_branch = Branch();
}

// A deep subtree can't be destroyed by recursion, and there may be no memory for a stack. The nodes that are
// still to be destroyed form a list by their pointers to the parent, which they no longer need.
void Node::DestroyChildren() noexcept
{
    Node* toDestroy = nullptr;
    const auto takeChildren = [&](Node& node) {
        if (node.m_children != nullptr) {
            node.m_children->GiveAway(
                [&](Node* child) { child->m_parent = std::exchange(toDestroy, child); });
            node.m_children.reset();
        }
    };
    takeChildren(*this);
    while (toDestroy != nullptr) {
        const std::unique_ptr<Node> node(std::exchange(toDestroy, toDestroy->m_parent));
        takeChildren(*node);
    }
}

// As YPath::operator+ joins the names one by one, in linear time. Only the name of a node that was made by
// hand may contain separators.
YPath Node::GetPath() const
{
    std::vector<std::string_view> names;
    std::size_t length = 1;
    for (const Node* node = this; node->m_parent != nullptr; node = node->m_parent) {
        names.push_back(node->m_name.Bytes());
        length += 1 + names.back().size();
    }
    std::string text = "/";
    text.reserve(length);
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        const std::size_t begin = std::min(name->find_first_not_of('/'), name->size());
        if (!text.ends_with('/'))
            text += '/';
        text += name->substr(begin);
        text.resize(std::max<std::size_t>(text.find_last_not_of('/') + 1, 1));
    }
    return YString(std::string_view(text));
}

std::unique_ptr<Node> Node::CopyRecursive(const YSelectionManagerNode& source, YSelectionManagerNode* parent)
{
    std::unique_ptr<Node> top;
    std::vector<Node*> above; // the copies from the top down to the parent of the next one
    for (Walk walk(source); const Node* original = walk.Current(); walk.Next()) {
        above.resize(walk.Depth());
        auto copy = std::make_unique<Node>(original->m_name, above.empty() ? parent : above.back());
        copy->m_includes = original->m_includes;
        copy->m_excludes = original->m_excludes;
        copy->m_branch.includes = original->m_branch.includes;
        Node* const node = copy.get();
        if (above.empty()) {
            top = std::move(copy);
        } else {
            above.back()->AddChild(std::move(copy));
        }
        above.push_back(node);
    }
    return top;
}

bool Node::operator==(const YSelectionManagerNode& other) const
{
    const auto sameContent = [](const Node& a, const Node& b) {
        return a.CountChildren() == b.CountChildren() && a.m_name == b.m_name &&
               a.m_includes.size() == b.m_includes.size() && a.m_excludes.size() == b.m_excludes.size() &&
               std::equal(a.m_includes.begin(), a.m_includes.end(), b.m_includes.begin()) &&
               std::equal(a.m_excludes.begin(), a.m_excludes.end(), b.m_excludes.begin());
    };
    // Equal numbers of children keep the two walks in step; the names then tell whether the keys agree.
    Walk walk(*this), otherWalk(other);
    for (; walk.Current() != nullptr; walk.Next(), otherWalk.Next()) {
        if (!sameContent(*walk.Current(), *otherWalk.Current()))
            return false;
    }
    return true;
}

void Node::Insert(Rules::Prepared&& rule) noexcept
{
    const bool isInclude = rule.value().IsInclude();
    if (!isInclude && !rule.value().IsExclude())
        RulesChanged(0); // the node may be new, and empty
    else if ((isInclude ? m_includes : m_excludes).Insert(std::move(rule)))
        RulesChanged(isInclude);
}

void Node::RulesChanged(long long includesAdded, const YSelectionManagerNode* keepsIndex) noexcept
{
    m_branch.includes += static_cast<unsigned long long>(includesAdded);
    for (Node* node = m_parent; node != nullptr; node = node->m_parent) {
        node->m_branch.includes += static_cast<unsigned long long>(includesAdded);
        if (node != keepsIndex)
            node->m_branch.ChangedBelow();
    }
}

void Node::Branch::ChangedBelow() noexcept
{
    index.reset();
    state = State::NotPruned;
}

void Node::LogPruning(const YSelectionDescriptor& rule, const YSelectionDescriptor& stored) const
{
    const char* const kind = stored.IsInclude() ? " include descriptor " : " exclude descriptor ";
    KRT_LOG(MessageType::SelectionBuild, "At node for " << GetPath() << kind << rule << " prunes " << stored);
}

void Node::PruneNodeIncludes(const YSelectionDescriptor& rule, bool pruneExplicit)
{
    const std::size_t pruned = m_includes.EraseCovered(rule, [&](const YSelectionDescriptor& stored) {
        if (stored.GetExplicitSelection() && !pruneExplicit)
            return false;
        LogPruning(rule, stored);
        return true;
    });
    if (pruned != 0)
        RulesChanged(-static_cast<long long>(pruned));
}

void Node::PruneNodeExcludes(const YSelectionDescriptor& rule)
{
    const std::size_t pruned = m_excludes.EraseCovered(rule, [&](const YSelectionDescriptor& stored) {
        LogPruning(rule, stored);
        return true;
    });
    if (pruned != 0)
        RulesChanged(0);
}

void Node::PruneRedundantChildren(const YSelectionDescriptor& rule)
{
    if (!rule.IsRecursive() || m_children == nullptr)
        return;
    if (rule.CoversAllNames()) { // an index by patterns doesn't help to find them
        PruneByWalk(rule);
        return;
    }
    switch (m_branch.state) {
    case Branch::State::NotPruned:
        PruneByWalk(rule);
        m_branch.state = Branch::State::PrunedOnce;
        break;
    case Branch::State::PrunedOnce:
        // The index costs a walk; it is built for the second recursive rule, because a single rule is cheaper
        // to apply by walking.
        m_branch.index = std::make_unique<YSelectionRulesBelow>(*this);
        m_branch.state = Branch::State::Indexed;
        [[fallthrough]];
    case Branch::State::Indexed:
        PruneByIndex(rule);
        break;
    }
}

// One pass: prunes on the way down and sweeps what is empty on the way up.
void Node::PruneByWalk(const YSelectionDescriptor& rule)
{
    struct Level
    {
        NamedChildren children;
        std::size_t next = 0;
    };
    std::vector<Level> open;
    open.push_back({ChildrenInOrder()});
    while (!open.empty()) {
        Level& level = open.back();
        if (level.next != level.children.size()) {
            Node& node = *level.children[level.next++].second;
            node.PruneNodeIncludes(rule, false);
            node.PruneNodeExcludes(rule);
            open.push_back({node.ChildrenInOrder()});
            continue;
        }
        open.pop_back();
        if (!open.empty()) {
            Node& done = *open.back().children[open.back().next - 1].second;
            if (done.IsEmpty())
                done.m_parent->EraseChild(done);
        }
    }
}

// The same for a branch without empty nodes, except that the index is kept.
void Node::PruneByIndex(const YSelectionDescriptor& rule)
{
    for (YSelectionRulesBelow::Entry* const entry : m_branch.index->FindPruned(rule)) {
        Node& node = *entry->node;
        node.LogPruning(rule, *entry->rule);
        const YSelectionDescriptor& stored = *std::exchange(entry->rule, nullptr);
        const bool isInclude = stored.IsInclude();
        (isInclude ? node.m_includes : node.m_excludes).Erase(stored);
        node.RulesChanged(isInclude ? -1 : 0, this);
        node.EraseUpwardsWhileEmpty(this);
    }
}

void Node::EraseUpwardsWhileEmpty(const YSelectionManagerNode* last)
{
    for (Node* node = this; node != last && node->IsEmpty() && node->m_parent != nullptr;) {
        Node* const parent = node->m_parent;
        parent->EraseChild(*node);
        node = parent;
    }
}

bool Node::DoesNodePruneDescriptor(const YSelectionDescriptor& candidate,
                                   bool checkNonRecursiveDescriptors) const
{
    return m_includes.AnyCovering(candidate, [&](const YSelectionDescriptor& rule) {
        return checkNonRecursiveDescriptors || (rule.IsRecursive() && !rule.GetExplicitSelection());
    }) || m_excludes.AnyCovering(candidate, [&](const YSelectionDescriptor& rule) {
        return checkNonRecursiveDescriptors || rule.IsRecursive();
    });
}

bool Node::MatchesInclude(const YString& name, bool checkNonRecursiveDescriptors) const
{
    return !m_includes.empty() && m_includes.AnyMatching(name, !checkNonRecursiveDescriptors,
                                                         [](const YSelectionDescriptor&) { return true; });
}

bool Node::MatchesExclude(const YString& name, bool checkNonRecursiveDescriptors, bool& reportable) const
{
    bool matched = false;
    reportable =
        m_excludes.AnyMatching(name, !checkNonRecursiveDescriptors, [&](const YSelectionDescriptor& rule) {
            matched = true;
            return rule.GetReportExclude();
        });
    return matched;
}

bool Node::MatchesExplicitExactNonRecursiveInclude(const YString& name) const
{
    return m_includes.AnyMatching(name, false, [](const YSelectionDescriptor& rule) {
        return rule.GetExplicitSelection() && !rule.IsRecursive() &&
               rule.GetDescriptor().GetMatchType() == MatchType::Exact;
    });
}

bool Node::AllChildrenAreExcludedNotReportably() const
{
    bool covered = false;
    const bool isReported = m_excludes.AnyCoveringAllNames([&](const YSelectionDescriptor& rule) {
        covered = true;
        return rule.GetReportExclude();
    });
    return covered && !isReported;
}

bool Node::HasAnyRecursiveIncludes() const
{
    return m_includes.HasRecursive();
}

bool Node::SelectsAllExplicitly() const
{
    return m_includes.AnyCoveringAllNames(
        [](const YSelectionDescriptor& rule) { return rule.IsRecursive() && rule.GetExplicitSelection(); });
}

Node* Node::FindChild(const YString& name) const
{
    return m_children == nullptr ? nullptr : m_children->Find(name);
}

Node& Node::AddChild(const YString& name)
{
    return AddChild(std::make_unique<Node>(name, this));
}

Node& Node::AddChild(std::unique_ptr<YSelectionManagerNode> child)
{
    if (m_children != nullptr)
        return m_children->Add(std::move(child));
    auto children = std::make_unique<Children>();
    Node& added = children->Add(std::move(child));
    m_children = std::move(children);
    return added;
}

void Node::EraseChild(YSelectionManagerNode& child)
{
    m_children->Erase(child);
    if (m_children->Count() == 0)
        m_children.reset();
}

Node::NamedChildren Node::ChildrenInOrder() const
{
    return m_children == nullptr ? NamedChildren() : m_children->InOrder();
}

std::size_t Node::CountChildren() const
{
    return m_children == nullptr ? 0 : m_children->Count();
}

} // namespace Backup::File
