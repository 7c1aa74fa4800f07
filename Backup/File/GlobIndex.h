#pragma once

#include "Backup/File/YSelectionRules.h"

#include <boost/unordered/unordered_flat_map.hpp>

#include <array>
#include <cstdint>
#include <vector>

namespace Backup::File {

/// Rules by a few bytes that each name that they match contains. A query looks up the bytes of a name, and
/// tests the rules that it finds. No lock: the owner of the rules guards it.
class KRT_HIDDEN GlobIndex
{
public:
    using Rule = YSelectionDescriptor;
    using Condition = YSelectionRules::Condition;

    /// Adds a Glob, or an Exact rule. The rule is stored by reference. Raises std::bad_alloc; the index may
    /// only be destroyed then.
    void Add(const Rule& rule);
    /// Removes a rule that was added.
    void Remove(const Rule& rule) noexcept;
    /// Returns true if `condition` is true for any rule that matches the name. The condition is also tested
    /// with rules that do not match it, possibly twice.
    bool Any(const YString& name, Condition condition) const;

private:
    // Where in a name the bytes are looked up.
    enum Anchor
    {
        AtBegin,
        AtEnd,
        Anywhere,
        AnchorCount
    };
    // The rules with one key, in a list through m_links.
    struct Chain
    {
        std::uint32_t first;
        std::uint32_t count;
    };
    struct Link
    {
        const Rule* rule;
        std::uint32_t next;
    };
    static constexpr std::uint32_t None = 0xFFFFFFFF;

    template <class Visitor>
    static void ForEachKey(const Rule& rule, Visitor visit);
    bool AnyOfKey(std::uint64_t key, Condition condition) const;
    bool Unlink(std::uint64_t key, const Rule& rule) noexcept;

    boost::unordered_flat_map<std::uint64_t, Chain> m_chains; // by key; each rule is in one of them
    std::vector<Link> m_links;
    std::uint32_t m_free = None;                     // the first unused link
    std::array<std::size_t, AnchorCount> m_widths{}; // sums of the widths of keys that may be in use
    std::vector<const Rule*> m_others;               // rules without any literal byte
};

} // namespace Backup::File
