#pragma once

#include "Backup/File/YSelectionDescriptor.h"

#include <memory>
#include <set>
#include <vector>

namespace Backup::File {

/// The ordered set of the rules of one type at one directory. A directory may have a hundred thousand
/// rules, so a large set has an index by pattern.
class BACKUP_API YSelectionRules
{
public:
    /// The element type.
    using Rule = YSelectionDescriptor;
    /// Visits the rules in their order.
    using const_iterator = std::set<Rule>::const_iterator;
    /// The allocated memory of a rule, which Insert links into the set.
    using Prepared = std::set<Rule>::node_type;

    /// A predicate on rules: a reference to a callable object, which must outlive the call to which it is
    /// passed.
    class Condition
    {
    public:
        /// Refers to `callable`, which accepts a rule and returns a bool.
        template <class Callable>
        Condition(const Callable& callable)
            : m_callable(&callable), m_call([](const void* object, const Rule& rule) {
                  return (*static_cast<const Callable*>(object))(rule);
              })
        {}
        /// Calls the object.
        bool operator()(const Rule& rule) const { return m_call(m_callable, rule); }

    private:
        const void* m_callable;
        bool (*m_call)(const void*, const Rule&);
    };

    YSelectionRules();
    /// Copies the rules. Raises std::bad_alloc.
    YSelectionRules(const YSelectionRules& other);
    /// Replaces the rules by copies. Raises std::bad_alloc.
    YSelectionRules& operator=(const YSelectionRules& other);
    ~YSelectionRules();

    /// The first rule, in the order of the rules.
    const_iterator begin() const { return m_rules.begin(); }
    const_iterator end() const { return m_rules.end(); }        ///< past the last rule
    std::size_t size() const { return m_rules.size(); }         ///< number of rules
    bool empty() const { return m_rules.empty(); }              ///< true if there are no rules
    bool HasRecursive() const { return m_recursiveCount != 0; } ///< true if any rule is recursive

    /// Returns the rule that equals `rule`, including the explicit flag, or end().
    const_iterator Find(const Rule& rule) const;
    /// Inserts the rule. Returns false, with the set unchanged, if it contains a rule that is equivalent in
    /// the order.
    bool Insert(Prepared&& rule) noexcept;
    /// Allocates the memory for a copy of `rule`.
    static Prepared Prepare(const Rule& rule);
    /// Removes all rules, without allocating memory.
    void Clear() noexcept;
    /// Removes `stored`, a reference to an element of the set.
    void Erase(const Rule& stored);

    /// Returns true if `condition` is true for any rule that matches the name or, with `recursiveOnly`, for
    /// any recursive one of them. Rules are tested in any order, possibly twice, until the condition is
    /// true.
    bool AnyMatching(const YString& name, bool recursiveOnly, Condition condition) const;
    /// Returns true if `condition` is true for any rule that covers all names. Rules are tested in any
    /// order, possibly twice, until the condition is true.
    bool AnyCoveringAllNames(Condition condition) const;
    /// Returns true if `condition` is true for any rule that covers `candidate`, that is, can prune it.
    /// Rules are tested in any order, possibly twice, until the condition is true.
    bool AnyCovering(const Rule& candidate, Condition condition) const;

    /// Removes the rules that `rule` covers and for which `mayErase`, called in order, returns true.
    /// Returns their number. After an exception the set is unchanged.
    std::size_t EraseCovered(const Rule& rule, Condition mayErase);

private:
    struct Index;
    using Pointers = std::vector<const Rule*>;

    template <class Predicate>
    bool AnyRule(Predicate matches) const;
    Pointers FindCovered(const Rule& rule) const;
    void RebuildIndex();
    void TryToIndex(const Rule& rule);

    std::set<Rule> m_rules;
    std::size_t m_recursiveCount = 0;
    std::unique_ptr<Index> m_index; // nullptr for a small set, or if there was no memory for it
};

} // namespace Backup::File
