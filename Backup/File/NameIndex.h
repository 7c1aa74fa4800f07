#pragma once

#include "Backup/File/YSelectionDescriptor.h"

#include <boost/unordered/unordered_flat_map.hpp>

#include <cstdint>
#include <vector>

namespace Backup::File {

/// Rules by the text of their patterns, to find those that another rule covers. No lock: the owner of the
/// rules guards it.
class KRT_HIDDEN NameIndex
{
public:
    using Rule = YSelectionDescriptor;

    /// A rule with the data of its owner, such as its node.
    struct Entry
    {
        const Rule* rule; ///< nullptr after its removal
        void* owned;      ///< what Add was called with
    };

    /// Adds a rule, which is stored by reference. Precondition: the index does not contain it. Raises
    /// std::bad_alloc, after which the index is unchanged.
    void Add(const Rule& rule, void* owned = nullptr);
    /// Removes a rule, which may already be destroyed. Ignores a rule that is not in the index.
    void Remove(const Rule* rule) noexcept;
    /// Returns the entries that `rule` can prune, in any order. Precondition: the rule is not of kind
    /// Any. Raises std::bad_alloc, after which the index has the same entries.
    std::vector<Entry> FindPruned(const Rule& rule);
    /// Returns true if the index has grown much since FindPruned was called. The owner then saves memory and
    /// time by destroying it, and creates another one when it needs one.
    bool IsOutgrown() const { return m_entries.size() > 3 * m_sizeWhenUsed + 32; }

private:
    // The entries that contain one gram, in a list through m_links.
    struct Chain
    {
        std::uint32_t first = None;
        std::uint32_t count = 0;
    };
    struct Link
    {
        std::uint32_t entry;
        std::uint32_t next;
    };
    static constexpr std::uint32_t None = 0xFFFFFFFF;

    void Compact();
    void IndexEntries();
    const Chain* RarestChain(const Krt::Match::Descriptor& names, bool& found) const;

    std::vector<Entry> m_entries;
    boost::unordered_flat_map<const Rule*, std::uint32_t> m_byRule; // indexes in m_entries
    std::size_t m_indexed = 0;      // the number of entries, from the first, whose grams are in m_chains
    std::size_t m_tested = 0;       // tests of other entries since the last change of m_indexed
    std::size_t m_sizeWhenUsed = 0; // the number of entries at the last call of FindPruned
    boost::unordered_flat_map<std::uint32_t, Chain> m_chains; // by gram
    std::vector<Link> m_links;
};

} // namespace Backup::File
