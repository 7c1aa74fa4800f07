// YSelectionRules: the rules of one type at one directory, in their order. A directory may have a hundred
// thousand of them, so a large set also knows where to look for those that speak of a given name.
#pragma once

#include "Backup/File/YSelectionDescriptor.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Backup::File {

class BACKUP_API YSelectionRules
{
public:
    /// The set as its iteration shows it: in the order of the rules.
    using Rule = YSelectionDescriptor;
    using const_iterator = std::set<Rule>::const_iterator;
    using Prepared = std::set<Rule>::node_type;

    YSelectionRules() = default;
    YSelectionRules(const YSelectionRules& other) { *this = other; }
    YSelectionRules& operator=(const YSelectionRules& other);
    ~YSelectionRules() = default;

    /// The iteration.
    const_iterator begin() const { return m_rules.begin(); }
    const_iterator end() const { return m_rules.end(); }
    std::size_t size() const { return m_rules.size(); }
    bool empty() const { return m_rules.empty(); }
    /// Whether any is recursive: within one type that is the first field of the order.
    bool HasRecursive() const { return !empty() && m_rules.rbegin()->IsRecursive(); }

    /// The rule that equals this one, explicit flag included; end() if there is none.
    const_iterator Find(const Rule& rule) const;
    /// False, with the stored rule left as it is, if one of the same place in the order is here already.
    bool Insert(Prepared&& rule) noexcept;
    /// Takes the memory that this rule needs.
    static Prepared Prepare(const Rule& rule);
    /// Drops all rules, without need of memory.
    void Clear() noexcept;
    /// Drops the rule there.
    void Erase(const_iterator position);
    /// Drops the rules that `rule` prunes and `mayGo`, asked in order, lets go; returns how many. All or
    /// none.
    std::size_t EraseCovered(const Rule& rule, const std::function<bool(const Rule&)>& mayGo);

    /// Visits every rule that matches the name, and perhaps others, in any order, until the visitor returns
    /// true; tells whether it did. A rule may come twice.
    template <class Visitor>
    bool VisitThoseAbout(const YString& name, Visitor visitor) const
    {
        if (m_index == nullptr)
            return std::any_of(m_rules.begin(), m_rules.end(), visitor);
        return m_index->VisitPattern(name, visitor) || Index::Visit(m_index->aboutAll, visitor) ||
               Index::Visit(m_index->others, visitor);
    }
    /// The same for the rules that cover all names.
    template <class Visitor>
    bool VisitThoseAboutAll(Visitor visitor) const
    {
        if (m_index != nullptr)
            return Index::Visit(m_index->aboutAll, visitor);
        return std::any_of(m_rules.begin(), m_rules.end(),
                           [&](const Rule& rule) { return rule.CoversAllNames() && visitor(rule); });
    }
    /// The same for the rules that can prune the given one.
    template <class Visitor>
    bool VisitThoseCovering(const Rule& covered, Visitor visitor) const
    {
        // What is not about one name alone is covered by its own pattern or by what covers all names.
        const Krt::Match::Descriptor& names = covered.GetDescriptor();
        if (m_index == nullptr || names.GetMatchType() == Krt::Match::MatchType::Exact)
            return VisitThoseAbout(names.GetPattern(), visitor);
        return m_index->VisitPattern(names.GetPattern(), visitor) || Index::Visit(m_index->aboutAll, visitor);
    }

private:
    using Pointers = std::vector<const Rule*>;

    // A smaller set is looked through from end to end.
    static constexpr std::size_t LeastIndexed = 16;

    struct Place
    {
        const Rule* rule;
        std::size_t inExact;  // its position there, if it is exact
        std::size_t inOthers; // and in the one of the other two lists in which it stands, if it does
    };
    struct Index
    {
        void Add(const Rule& rule);
        void Remove(const Rule& rule);

        template <class Visitor>
        bool VisitPattern(const YString& pattern, Visitor&& visitor) const
        {
            const auto [first, last] = byPattern.equal_range(pattern.Bytes());
            return std::any_of(first, last, [&](const auto& entry) { return visitor(*entry.second.rule); });
        }
        template <class Visitor>
        static bool Visit(const Pointers& rules, Visitor&& visitor)
        {
            return std::any_of(rules.begin(), rules.end(), [&](const Rule* rule) { return visitor(*rule); });
        }

        using ByPattern = std::unordered_multimap<std::string_view, Place>;
        ByPattern::iterator Find(const Rule& rule);
        void TakeOut(Pointers& rules, std::size_t Place::*position, const Rule& rule);

        // All rules by their pattern, which is the name that an exact rule speaks of. The views are into the
        // rules.
        ByPattern byPattern;
        // In any order:
        Pointers aboutAll; // those that cover all names
        Pointers others;   // further ones that a name without their pattern may match
        Pointers exact;
    };

    Pointers FindCovered(const Rule& rule) const;
    void RemakeIndex();
    void TryToIndex(const Rule& rule);

    std::set<Rule> m_rules;
    std::unique_ptr<Index> m_index; // null for a small set, or if there was no memory for it
};

} // namespace Backup::File
