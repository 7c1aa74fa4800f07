// The children of a node of a selection tree, found by the hash of their names. A large tree is seldom in the
// caches, so that each step of a search by order would wait for memory.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <boost/unordered/unordered_flat_map.hpp>

#include <algorithm>
#include <functional>
#include <string_view>

namespace Backup::File {

class YSelectionManager::YSelectionManagerNode::Children
{
public:
    using Node = YSelectionManagerNode;

    /// Null if there is none of the name.
    Node* Find(const YString& name) const
    {
        const auto child = m_byName.find(name.Bytes());
        return child == m_byName.end() ? nullptr : child->second.get();
    }
    /// One that no other has the name of.
    Node& Add(std::unique_ptr<Node> child)
    {
        const std::string_view name = child->m_name.Bytes();
        return *m_byName.emplace(name, std::move(child)).first->second;
    }
    void Erase(const Node& child)
    {
        // The key is in the child, which has to outlive its place here.
        const auto place = m_byName.find(child.m_name.Bytes());
        const std::unique_ptr<Node> erased = std::move(place->second);
        m_byName.erase(place);
    }
    std::size_t Count() const { return m_byName.size(); }
    /// Hands all over, after which this object may only be destroyed.
    template <class Taker>
    void GiveAway(Taker take)
    {
        for (auto& child : m_byName)
            take(child.second.release());
    }
    /// All, by the bytes of their names.
    NamedChildren InOrder() const
    {
        NamedChildren children;
        children.reserve(m_byName.size());
        for (const auto& [name, child] : m_byName)
            children.emplace_back(name, child.get());
        std::sort(children.begin(), children.end());
        return children;
    }

private:
    boost::unordered_flat_map<std::string_view, std::unique_ptr<Node>, std::hash<std::string_view>> m_byName;
};

} // namespace Backup::File
