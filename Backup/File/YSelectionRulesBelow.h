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
        const YSelectionDescriptor* rule; // null once it was taken out of the tree
        Node* node;
    };

    void Add(const YSelectionDescriptor& rule, Node& node);
    /// Ends the adding.
    void Sort();
    /// The entries that a rule may prune which doesn't cover all names, and perhaps others. The caller sets
    /// the rule of an entry to null when it takes that out of the tree.
    std::vector<Entry*> CandidatesFor(const YSelectionDescriptor& rule);

private:
    using Order = std::vector<std::uint32_t>; // places in m_entries

    template <class Compare>
    std::vector<Entry*> Range(const Order& order, std::string_view text, Compare compare);

    std::vector<Entry> m_entries;
    Order m_byBegin; // by the bytes of the pattern
    Order m_byEnd;   // by these bytes read backwards
};

} // namespace Backup::File
