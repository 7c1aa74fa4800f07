#pragma once

/// @file
/// The parts of a selection tree that only its own sources use: the children of a node, the walk through a
/// subtree, and the index of a branch.

#include "Backup/File/YSelectionManager.h"

#include <boost/unordered/unordered_flat_map.hpp>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Backup::File {

/// The children of a node, hashed by their names. A large tree is seldom in the caches, so each step of an
/// ordered search would wait for memory.
class YSelectionManager::YSelectionManagerNode::Children
{
public:
    using Node = YSelectionManagerNode;

    /// Returns the child of this name, or nullptr.
    Node* Find(const YString& name) const
    {
        const auto child = m_byName.find(name.Bytes());
        return child == m_byName.end() ? nullptr : child->second.get();
    }
    /// Adds a child. Precondition: no other child has its name.
    Node& Add(std::unique_ptr<Node> child)
    {
        const std::string_view name = child->m_name.Bytes();
        return *m_byName.emplace(name, std::move(child)).first->second;
    }
    /// Destroys a child.
    void Erase(const Node& child)
    {
        // The key is in the child, which must outlive the entry.
        const auto entry = m_byName.find(child.m_name.Bytes());
        const std::unique_ptr<Node> erased = std::move(entry->second);
        m_byName.erase(entry);
    }
    /// The number of children.
    std::size_t Count() const { return m_byName.size(); }
    /// Passes ownership of all children to `take`. This object may only be destroyed afterwards.
    template <class Taker>
    void GiveAway(Taker take)
    {
        for (auto& child : m_byName)
            take(child.second.release());
    }
    /// Calls `visit` with the name and the pointer of each child, in any order.
    template <class Visitor>
    void ForEach(Visitor visit) const
    {
        for (const auto& [name, child] : m_byName)
            visit(name, child.get());
    }

private:
    boost::unordered_flat_map<std::string_view, std::unique_ptr<Node>, std::hash<std::string_view>> m_byName;
};

/// Enters and leaves each node of a subtree: children after their parent is entered and before it is left,
/// by the bytes of their names. The path is kept on the heap, since a tree may be deeper than any stack. A
/// node that was left may be erased. `N` is the type of the nodes, const or not.
template <class N>
class YSelectionManager::YSelectionManagerNode::Walk
{
public:
    /// A walk through the subtree of `start`.
    explicit Walk(N& start) : m_open{{{}, &start, false}} {}

    /// Advances to the next event. Returns false after the last one.
    bool Step()
    {
        if (std::exchange(m_opensChildren, false))
            OpenChildren();
        if (m_open.empty())
            return false;
        Open& next = m_open.back();
        m_node = next.node;
        m_name = next.name;
        m_isEntering = !std::exchange(next.isEntered, true);
        m_depth = m_isEntering ? m_entered++ : --m_entered;
        m_opensChildren = m_isEntering && m_node != nullptr;
        if (!m_isEntering)
            m_open.pop_back();
        return true;
    }
    /// Advances to the next node that is entered. Returns false after the last one.
    bool Enter()
    {
        while (Step()) {
            if (m_isEntering)
                return true;
        }
        return false;
    }
    /// Skips the nodes below the node that was just entered.
    void SkipChildren() { m_opensChildren = false; }

    /// Returns true if the last step entered a node, false if it left one.
    bool IsEntering() const { return m_isEntering; }
    /// The node that the last step entered or left.
    N& Current() const { return *m_node; }
    /// Returns true for a child that is a null pointer, which occurs only in a damaged tree.
    bool IsMissing() const { return m_node == nullptr; }
    /// The name by which the parent contains the node; empty for the start.
    std::string_view Name() const { return m_name; }
    /// The depth of the node; 0 for the start.
    std::size_t Depth() const { return m_depth; }

private:
    struct Open
    {
        std::string_view name;
        N* node;
        bool isEntered;
    };

    void OpenChildren()
    {
        if (m_node->m_children == nullptr)
            return;
        const auto first = static_cast<std::ptrdiff_t>(m_open.size());
        m_node->m_children->ForEach([&](std::string_view name, N* child) {
            m_open.push_back({name, child, false});
        });
        std::sort(m_open.begin() + first, m_open.end(),
                  [](const Open& a, const Open& b) { return a.name > b.name; }); // the last one is next
    }

    std::vector<Open> m_open;
    N* m_node = nullptr;
    std::string_view m_name;
    std::size_t m_depth = 0;
    std::size_t m_entered = 0; // and not left yet
    bool m_isEntering = false;
    bool m_opensChildren = false; // at the next step
};

/// The rules below one node by their patterns. With it a recursive rule that is added at the node finds the
/// rules that it covers without a walk through the whole branch.
class KRT_HIDDEN YSelectionManager::YSelectionManagerNode::BranchIndex
{
public:
    using Node = YSelectionManagerNode;

    /// A rule below the node.
    struct Entry
    {
        std::string pattern;
        const YSelectionDescriptor* rule; // nullptr after it was removed from the tree
        Node* node;
    };

    /// Indexes the rules below `top`.
    explicit BranchIndex(Node& top);
    /// Returns the entries that `rule` prunes, in the order of a walk. Precondition: the rule does not
    /// cover all names. The caller sets the rule of an entry to nullptr when it removes that rule from the
    /// tree.
    std::vector<Entry*> FindPruned(const YSelectionDescriptor& rule);

private:
    using Order = std::vector<std::uint32_t>; // indexes in m_entries

    template <class Compare>
    std::vector<Entry*> Range(const Order& order, std::string_view text, Compare compare);
    std::vector<Entry*> FindCandidates(const Krt::Match::Descriptor& names);

    std::vector<Entry> m_entries; // in the order of a walk
    Order m_byBegin;              // by the bytes of the pattern
    Order m_byEnd;                // by these bytes read backwards
};

} // namespace Backup::File
