#include "Backup/File/YSelectionTree.h"

#include "Krt/Log/LogSite.h"
#include "Krt/Log/YStream.h"

#include <new>
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
    m_branch.includes = 0;
    ForgetBranches();
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

// Joins the names as YPath::operator+ would one by one, but in linear time. A name contains separators only
// if a caller has constructed the node with it.
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
    auto top = std::make_unique<Node>(source.m_name, parent);
    Node* copy = top.get(); // of the node that was entered last
    for (Walk<const Node> walk(source); walk.Step();) {
        if (!walk.IsEntering()) {
            if (walk.Depth() != 0)
                copy = copy->m_parent;
            continue;
        }
        const Node& original = walk.Current();
        if (walk.Depth() != 0)
            copy = &copy->AddChild(original.m_name);
        copy->m_includes = original.m_includes;
        copy->m_excludes = original.m_excludes;
        copy->m_branch.includes = original.m_branch.includes;
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
    const Node* twin = &other; // in the other subtree, of the node that was entered last
    for (Walk<const Node> walk(*this); walk.Step();) {
        if (!walk.IsEntering()) {
            if (walk.Depth() != 0)
                twin = twin->m_parent;
            continue;
        }
        if (walk.Depth() != 0)
            twin = twin->FindChild(walk.Current().m_name);
        if (twin == nullptr || !sameContent(walk.Current(), *twin))
            return false;
    }
    return true;
}

void Node::Insert(Rules::Prepared&& rule) noexcept
{
    const YSelectionDescriptor& inserted = rule.value(); // the allocated rule stays where it is
    const bool isInclude = inserted.IsInclude();
    if (!isInclude && !inserted.IsExclude())
        ForgetBranches(); // the node may be new and empty
    else if ((isInclude ? m_includes : m_excludes).Insert(std::move(rule)))
        RuleInserted(inserted);
}

void Node::RuleInserted(const YSelectionDescriptor& stored) noexcept
{
    for (Node* node = this; node != nullptr; node = node->m_parent) {
        Branch& branch = node->m_branch;
        branch.includes += stored.IsInclude() ? 1 : 0;
        if (branch.index == nullptr || node == this)
            continue;
        try {
            branch.index->Add(stored, *this);
        } catch (const std::bad_alloc&) {
            branch.index.reset();
        }
        if (branch.index == nullptr || branch.index->IsOutgrown()) {
            branch.index.reset();
            branch.state = Branch::State::Pruned;
        }
    }
}

void Node::RulesErased(std::span<const YSelectionDescriptor* const> erased, bool areIncludes) noexcept
{
    for (Node* node = this; node != nullptr; node = node->m_parent) {
        node->m_branch.includes -= areIncludes ? erased.size() : 0;
        if (node->m_branch.index == nullptr || node == this)
            continue;
        for (const YSelectionDescriptor* const rule : erased)
            node->m_branch.index->Remove(rule);
    }
}

void Node::ForgetBranches() noexcept
{
    for (Node* node = this; node != nullptr; node = node->m_parent) {
        node->m_branch.index.reset();
        node->m_branch.state = Branch::State::NotPruned;
    }
}

Node::Branch::Branch() noexcept = default;

Node::Branch::~Branch() = default;

void Node::LogPruning(const YSelectionDescriptor& rule, const YSelectionDescriptor& stored) const
{
    const char* const kind = stored.IsInclude() ? " include descriptor " : " exclude descriptor ";
    KRT_LOG(MessageType::SelectionBuild, "At node for " << GetPath() << kind << rule << " prunes " << stored);
}

void Node::PruneNodeIncludes(const YSelectionDescriptor& rule, bool pruneExplicit)
{
    PruneRules(SelectionType::Include, rule, !pruneExplicit);
    if (IsEmpty())
        ForgetBranches();
}

void Node::PruneNodeExcludes(const YSelectionDescriptor& rule)
{
    PruneRules(SelectionType::Exclude, rule, false);
    if (IsEmpty())
        ForgetBranches();
}

void Node::PruneRules(SelectionType type, const YSelectionDescriptor& rule, bool keepExplicit)
{
    const bool areIncludes = type == SelectionType::Include;
    Rules& rules = areIncludes ? m_includes : m_excludes;
    if (rules.empty())
        return;
    std::vector<const YSelectionDescriptor*> erased;
    rules.EraseCovered(rule, [&](const YSelectionDescriptor& stored) {
        if (keepExplicit && stored.GetExplicitSelection())
            return false;
        LogPruning(rule, stored);
        erased.push_back(&stored);
        return true;
    });
    if (!erased.empty())
        RulesErased(erased, areIncludes);
}

void Node::PruneRedundantChildren(const YSelectionDescriptor& rule)
{
    if (rule.GetRecursionType() == YSelectionDescriptor::NonRecursive || m_children == nullptr)
        return;
    // An index by patterns doesn't help to find rules of all names. The first rule of others is cheaper to
    // apply by a walk than by an index, which costs a walk, too.
    if (rule.CoversAllNames() || m_branch.state == Branch::State::NotPruned) {
        PruneByWalk(rule);
        if (m_branch.state == Branch::State::NotPruned)
            m_branch.state = Branch::State::Pruned;
        return;
    }
    if (m_branch.state == Branch::State::Pruned) {
        m_branch.index = std::make_unique<BranchIndex>(*this);
        m_branch.state = Branch::State::Indexed;
    }
    PruneByIndex(rule);
}

// Prunes each node when entering it, and erases empty nodes when leaving them.
void Node::PruneByWalk(const YSelectionDescriptor& rule)
{
    Walk<Node> walk(*this);
    try {
        while (walk.Step()) {
            Node& node = walk.Current();
            if (&node == this)
                continue;
            if (walk.IsEntering()) {
                node.PruneRules(SelectionType::Include, rule, true);
                node.PruneRules(SelectionType::Exclude, rule, false);
            } else if (node.IsEmpty()) {
                node.m_parent->EraseChild(node);
            }
        }
    } catch (...) {
        // Memory is needed only after a node was entered. That node may be empty, and so may those above it,
        // which the walk would have erased when leaving them.
        walk.Current().ForgetBranches();
        throw;
    }
}

// Does the work of PruneByWalk for a branch without empty nodes.
void Node::PruneByIndex(const YSelectionDescriptor& rule)
{
    for (const BranchIndex::Entry& entry : m_branch.index->FindPruned(rule)) {
        Node& node = BranchIndex::NodeOf(entry);
        node.LogPruning(rule, *entry.rule);
        const bool isInclude = entry.rule->IsInclude();
        (isInclude ? node.m_includes : node.m_excludes).Erase(*entry.rule);
        node.RulesErased({&entry.rule, 1}, isInclude);
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
    return !m_includes.empty() && m_includes.AnyMatching(name, false, [](const YSelectionDescriptor& rule) {
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
    if (m_children != nullptr)
        return m_children->Add(std::make_unique<Node>(name, this));
    auto children = std::make_unique<Children>();
    Node& added = children->Add(std::make_unique<Node>(name, this));
    m_children = std::move(children);
    return added;
}

void Node::EraseChild(YSelectionManagerNode& child)
{
    m_children->Erase(child);
    if (m_children->Count() == 0)
        m_children.reset();
}

std::size_t Node::CountChildren() const
{
    return m_children == nullptr ? 0 : m_children->Count();
}

Node::BranchIndex::BranchIndex(Node& top)
{
    Walk<Node> walk(top);
    for (walk.Enter(); walk.Enter();) { // the first node is the top itself
        for (const Rules* const rules : {&walk.Current().m_includes, &walk.Current().m_excludes}) {
            for (const YSelectionDescriptor& rule : *rules)
                Add(rule, walk.Current());
        }
    }
}

std::vector<Node::BranchIndex::Entry> Node::BranchIndex::FindPruned(const YSelectionDescriptor& rule)
{
    std::vector<Entry> entries = NameIndex::FindPruned(rule);
    std::erase_if(entries, [](const Entry& entry) {
        return entry.rule->IsInclude() && entry.rule->GetExplicitSelection();
    });
    if (Krt::Log::IsLogged(MessageType::SelectionBuild))
        std::sort(entries.begin(), entries.end(), IsBefore);
    return entries;
}

// Returns true if a walk visits the first entry before the second one.
bool Node::BranchIndex::IsBefore(const Entry& a, const Entry& b)
{
    const Node* first = &NodeOf(a);
    const Node* second = &NodeOf(b);
    if (first == second)
        return *a.rule < *b.rule; // includes are before excludes
    const auto depthOf = [](const Node* node) {
        std::size_t depth = 0;
        for (; node->m_parent != nullptr; node = node->m_parent)
            ++depth;
        return depth;
    };
    const std::size_t firstDepth = depthOf(first);
    const std::size_t secondDepth = depthOf(second);
    for (std::size_t depth = firstDepth; depth > secondDepth; --depth)
        first = first->m_parent;
    for (std::size_t depth = secondDepth; depth > firstDepth; --depth)
        second = second->m_parent;
    if (first == second) // one node is above the other
        return firstDepth < secondDepth;
    while (first->m_parent != second->m_parent) {
        first = first->m_parent;
        second = second->m_parent;
    }
    return first->m_name < second->m_name;
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
    const Node* parent = nullptr; // of the next child
    for (Node::Walk<const Node> walk(node); walk.Step();) {
        if (walk.IsMissing()) { // the text is also used to diagnose a damaged tree
            if (walk.IsEntering())
                stream << "child.second is empty for: " << YString(walk.Name())
                       << " under node at address: " << Krt::Hex::On
                       << reinterpret_cast<unsigned long>(parent) << Krt::Modifiers::EndLine;
            continue;
        }
        parent = walk.IsEntering() ? &walk.Current() : walk.Current().m_parent;
        if (walk.IsEntering())
            walk.Current().Write(stream);
    }
    return stream;
}

Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionManager& manager)
{
    // Waits for a change in progress. The text is then written without the lock; see the header.
    manager.m_lock.ReadLock(Krt::Time::YDuration::Zero()).Release();
    return stream << *manager.m_root;
}

} // namespace Backup::File
