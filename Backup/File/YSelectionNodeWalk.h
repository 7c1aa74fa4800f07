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
        if (m_current->m_children.empty()) {
            NextBeside();
            return;
        }
        m_open.push_back({m_current->m_children.begin(), m_current->m_children.end()});
        m_current = m_open.back().position->second.get();
    }

    /// Leaves out what is below the current node.
    void NextBeside()
    {
        while (!m_open.empty()) {
            if (++m_open.back().position != m_open.back().end) {
                m_current = m_open.back().position->second.get();
                return;
            }
            m_open.pop_back();
        }
        m_current = nullptr;
    }

private:
    struct Level
    {
        Children::const_iterator position;
        Children::const_iterator end;
    };

    const YSelectionManagerNode* m_current;
    std::vector<Level> m_open;
};

} // namespace Backup::File
