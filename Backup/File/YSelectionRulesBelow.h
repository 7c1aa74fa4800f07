// YSelectionRulesBelow: the rules below one node of a selection tree by their patterns, so that the next of
// many recursive rules that are added there finds what it covers without a walk through the whole branch.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Backup::File {

class YSelectionRulesBelow
{
public:
    using Node = YSelectionManager::YSelectionManagerNode;

    struct Entry
    {
        std::string pattern;
        const YSelectionDescriptor* rule; // null after it was taken out of the tree
        Node* node;
    };

    explicit YSelectionRulesBelow(Node& top);
    /// The entries that the rule prunes, in the order of a walk. The rule doesn't cover all names. The caller
    /// sets the rule of an entry to null when it takes that rule out of the tree.
    std::vector<Entry*> FindPruned(const YSelectionDescriptor& rule);

private:
    using Order = std::vector<std::uint32_t>; // places in m_entries

    template <class Compare>
    std::vector<Entry*> Range(const Order& order, std::string_view text, Compare compare);
    std::vector<Entry*> FindCandidates(const Krt::Match::Descriptor& names);

    std::vector<Entry> m_entries; // in the order of a walk
    Order m_byBegin;              // by the bytes of the pattern
    Order m_byEnd;                // by these bytes read backwards
};

} // namespace Backup::File
