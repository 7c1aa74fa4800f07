// Walks through a subtree, each node before its children and these by name, with its way back in memory of
// its own: a tree may be deeper than any stack.
#pragma once

#include "Backup/File/YSelectionManager.h"

namespace Backup::File {

class YSelectionManager::YSelectionManagerNode::Walk
{
public:
    explicit Walk(const YSelectionManagerNode& start) : m_current(&start) {}

    /// Null behind the last node.
    const YSelectionManagerNode* Current() const { return m_current; }
    /// 0 at the start.
    std::size_t Depth() const { return m_open.size(); }

    void Next()
    {
        if (m_current->m_children == nullptr) {
            NextBeside();
            return;
        }
        m_open.push_back({m_current->ChildrenInOrder()});
        m_current = m_open.back().children.front().second;
    }

    /// Leaves out what is below the current node.
    void NextBeside()
    {
        for (; !m_open.empty(); m_open.pop_back()) {
            Level& level = m_open.back();
            if (++level.current != level.children.size()) {
                m_current = level.children[level.current].second;
                return;
            }
        }
        m_current = nullptr;
    }

private:
    struct Level
    {
        NamedChildren children;
        std::size_t current = 0;
    };

    const YSelectionManagerNode* m_current;
    std::vector<Level> m_open;
};

} // namespace Backup::File
