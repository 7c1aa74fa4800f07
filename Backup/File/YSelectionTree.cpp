#include "Backup/File/YSelectionTree.h"

#include "Krt/Log/LogSite.h"
#include "Krt/Log/YStream.h"

#include <numeric>
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
    m_branch.ChangedBelow();
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
    const bool isInclude = rule.value().IsInclude();
    if (!isInclude && !rule.value().IsExclude())
        RulesChanged(0); // the node may be new and empty
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

Node::Branch::Branch() noexcept = default;

Node::Branch::~Branch() = default;

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
    if (rule.GetRecursionType() == YSelectionDescriptor::NonRecursive || m_children == nullptr)
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
        m_branch.index = std::make_unique<BranchIndex>(*this);
        m_branch.state = Branch::State::Indexed;
        [[fallthrough]];
    case Branch::State::Indexed:
        PruneByIndex(rule);
        break;
    }
}

// Prunes each node when entering it, and erases empty nodes when leaving them.
void Node::PruneByWalk(const YSelectionDescriptor& rule)
{
    for (Walk<Node> walk(*this); walk.Step();) {
        Node& node = walk.Current();
        if (&node == this)
            continue;
        if (walk.IsEntering()) {
            node.PruneNodeIncludes(rule, false);
            node.PruneNodeExcludes(rule);
        } else if (node.IsEmpty()) {
            node.m_parent->EraseChild(node);
        }
    }
}

// Does the work of PruneByWalk for a branch without empty nodes, and keeps the index.
void Node::PruneByIndex(const YSelectionDescriptor& rule)
{
    for (BranchIndex::Entry* const entry : m_branch.index->FindPruned(rule)) {
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

namespace {

int CompareBegins(std::string_view a, std::string_view b)
{
    return a.compare(b);
}

int CompareEnds(std::string_view a, std::string_view b)
{
    const auto [x, y] = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend());
    if (x == a.rend() || y == b.rend())
        return (x != a.rend()) - (y != b.rend());
    return static_cast<unsigned char>(*x) < static_cast<unsigned char>(*y) ? -1 : 1;
}

constexpr char Wildcards[] = "*?";

} // namespace

Node::BranchIndex::BranchIndex(Node& top)
{
    Walk<Node> walk(top);
    for (walk.Enter(); walk.Enter();) { // the first node is the top itself
        for (const Rules* const rules : {&walk.Current().m_includes, &walk.Current().m_excludes}) {
            for (const YSelectionDescriptor& rule : *rules)
                m_entries.push_back({rule.GetDescriptor().GetPattern().Bytes(), &rule, &walk.Current()});
        }
    }
    const auto sort = [this](Order& order, auto compare) {
        order.resize(m_entries.size());
        std::iota(order.begin(), order.end(), 0U);
        std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
            return compare(m_entries[a].pattern, m_entries[b].pattern) < 0;
        });
    };
    sort(m_byBegin, CompareBegins);
    sort(m_byEnd, CompareEnds);
}

std::vector<Node::BranchIndex::Entry*> Node::BranchIndex::FindPruned(const YSelectionDescriptor& rule)
{
    std::vector<Entry*> entries = FindCandidates(rule.GetDescriptor());
    std::erase_if(entries, [&](const Entry* entry) {
        const bool isExplicit = entry->rule->IsInclude() && entry->rule->GetExplicitSelection();
        return isExplicit || !rule.CanPrune(*entry->rule);
    });
    std::sort(entries.begin(), entries.end());
    return entries;
}

// Returns all entries that the names cover, and perhaps others. A pattern is covered by an equal one, or by a
// Glob that matches it as a name. Such a name begins with the Glob's text before the first wildcard and ends
// with its text after the last. The longer of the two texts leaves fewer candidates.
std::vector<Node::BranchIndex::Entry*> Node::BranchIndex::FindCandidates(const Krt::Match::Descriptor& names)
{
    const std::string_view pattern = names.GetPattern().Bytes();
    const std::size_t first = pattern.find_first_of(Wildcards);
    const bool isGlob = names.GetMatchType() == MatchType::Glob;
    if (isGlob && !names.IsCaseSensitive())
        return Range(m_byBegin, "", CompareBegins);
    if (!isGlob || first == std::string_view::npos)
        return Range(m_byBegin, pattern, CompareBegins);
    const std::string_view begin = pattern.substr(0, first);
    const std::string_view end = pattern.substr(pattern.find_last_of(Wildcards) + 1);
    return begin.size() > end.size() ? Range(m_byBegin, begin, CompareBegins)
                                     : Range(m_byEnd, end, CompareEnds);
}

// Returns the entries whose pattern begins or ends with the text, depending on `compare`.
template <class Compare>
std::vector<Node::BranchIndex::Entry*> Node::BranchIndex::Range(const Order& order, std::string_view text,
                                                                Compare compare)
{
    const bool atEnd = &order == &m_byEnd;
    const auto holds = [&](const Entry& entry) {
        return atEnd ? entry.pattern.ends_with(text) : entry.pattern.starts_with(text);
    };
    std::vector<Entry*> found;
    auto next =
        std::lower_bound(order.begin(), order.end(), text, [&](std::uint32_t a, std::string_view wanted) {
            return compare(m_entries[a].pattern, wanted) < 0;
        });
    for (; next != order.end() && holds(m_entries[*next]); ++next) {
        if (m_entries[*next].rule != nullptr)
            found.push_back(&m_entries[*next]);
    }
    return found;
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
