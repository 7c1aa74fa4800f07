#pragma once

/// @file
/// The parts of a selection tree that only its own sources use: the children of a node, the walk through a
/// subtree, and the index of a branch.

#include "Backup/File/NameIndex.h"
#include "Backup/File/YSelectionManager.h"

#include <boost/container/small_vector.hpp>
#include <boost/unordered/unordered_flat_map.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>
#include <variant>
#include <vector>

namespace Backup::File {

/// The children of a node, hashed by their names. A large tree is seldom in the caches, so each step of an
/// ordered search would wait for memory. Most nodes have few children, which need no table: these are found
/// by a mark.
class YSelectionManager::YSelectionManagerNode::Children
{
public:
    using Node = YSelectionManagerNode;

    /// Returns the child of this name, or nullptr.
    Node* Find(const YString& name) const
    {
        if (const Table* const table = std::get_if<Table>(&m_children)) {
            const auto child = table->find(name.Bytes());
            return child == table->end() ? nullptr : child->second.get();
        }
        const Few& few = std::get<Few>(m_children);
        const auto child = FindFew(few, name);
        return child == few.end() ? nullptr : child->node.get();
    }
    /// Adds a child. Precondition: no other child has its name. Raises std::bad_alloc, after which the child
    /// is destroyed and the others are unchanged.
    Node& Add(std::unique_ptr<Node> child)
    {
        if (const Few* const few = std::get_if<Few>(&m_children); few != nullptr && few->size() == MostFew)
            MakeTable();
        Node& added = *child;
        if (Table* const table = std::get_if<Table>(&m_children))
            table->emplace(added.m_name.Bytes(), std::move(child));
        else
            std::get<Few>(m_children)
                .push_back({MarkOf(added.m_name.Bytes()), added.m_name.Bytes().size(), std::move(child)});
        return added;
    }
    /// Destroys a child.
    void Erase(const Node& child)
    {
        if (Few* const few = std::get_if<Few>(&m_children)) {
            few->erase(FindFew(*few, child.m_name));
            return;
        }
        // The key is in the child, which must outlive the entry.
        Table& table = std::get<Table>(m_children);
        const auto entry = table.find(child.m_name.Bytes());
        const std::unique_ptr<Node> erased = std::move(entry->second);
        table.erase(entry);
    }
    /// The number of children.
    std::size_t Count() const
    {
        return std::visit([](const auto& children) -> std::size_t { return children.size(); }, m_children);
    }
    /// Passes ownership of all children to `take`. This object may only be destroyed afterwards.
    template <class Taker>
    void GiveAway(Taker take)
    {
        if (Few* const few = std::get_if<Few>(&m_children)) {
            for (Child& child : *few)
                take(child.node.release());
            return;
        }
        for (auto& child : std::get<Table>(m_children))
            take(child.second.release());
    }
    /// Calls `visit` with the name and the pointer of each child, in any order.
    template <class Visitor>
    void ForEach(Visitor visit) const
    {
        if (const Few* const few = std::get_if<Few>(&m_children)) {
            for (const Child& child : *few)
                visit(child.node != nullptr ? NameOf(child) : std::string_view(), child.node.get());
            return;
        }
        for (const auto& [name, child] : std::get<Table>(m_children))
            visit(name, child.get());
    }

private:
    using Hash = std::hash<std::string_view>;
    // The keys are views of the nodes' names.
    using Table = boost::unordered_flat_map<std::string_view, std::unique_ptr<Node>, Hash>;
    // Most of the names of a directory differ in size or mark, and short ones always do.
    struct Child
    {
        std::uint64_t mark;
        std::size_t size; // of the name
        std::unique_ptr<Node> node;
    };
    using Few = boost::container::small_vector<Child, 1>; // most nodes have one child
    static constexpr std::size_t MostFew = 8;
    static constexpr std::size_t MostMarked =
        8; // a name of at most this many bytes is completely in its mark

    // The first and the last bytes of a name.
    static std::uint64_t MarkOf(std::string_view name)
    {
        if (name.empty())
            return 0;
        std::uint32_t first, last;
        if (name.size() < sizeof first) {
            first = static_cast<unsigned char>(name.front());
            last = static_cast<unsigned char>(name[name.size() / 2]) << 8 |
                   static_cast<unsigned char>(name.back());
        } else {
            std::memcpy(&first, name.data(), sizeof first);
            std::memcpy(&last, name.data() + name.size() - sizeof last, sizeof last);
        }
        return std::uint64_t{first} << 32 | last;
    }
    static std::string_view NameOf(const Child& child) { return child.node->m_name.Bytes(); }
    static Few::const_iterator FindFew(const Few& few, const YString& name)
    {
        const std::string_view sought = name.Bytes();
        const std::uint64_t mark = MarkOf(sought);
        auto child = few.begin();
        while (child != few.end() && (child->mark != mark || child->size != sought.size() ||
                                      (sought.size() > MostMarked && NameOf(*child) != sought)))
            ++child;
        return child;
    }
    void MakeTable()
    {
        Table table;
        table.reserve(MostFew + 1);
        for (Child& child : std::get<Few>(m_children))
            table.emplace(NameOf(child), std::move(child.node));
        m_children = std::move(table);
    }

    std::variant<Few, Table> m_children; // a Table from the first child after MostFew on
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
class KRT_HIDDEN YSelectionManager::YSelectionManagerNode::BranchIndex : public NameIndex
{
public:
    using Node = YSelectionManagerNode;

    /// Indexes the rules below `top`.
    explicit BranchIndex(Node& top);
    /// Adds a rule of a node below.
    void Add(const YSelectionDescriptor& rule, Node& node) { NameIndex::Add(rule, &node); }
    /// Returns the entries that `rule` prunes; in the order of a walk, if they are to be logged.
    /// Precondition: the rule does not cover all names.
    std::vector<Entry> FindPruned(const YSelectionDescriptor& rule);
    /// The node of an entry.
    static Node& NodeOf(const Entry& entry) { return *static_cast<Node*>(entry.owned); }

private:
    static bool IsBefore(const Entry& a, const Entry& b);
};

} // namespace Backup::File
