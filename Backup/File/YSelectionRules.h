// YSelectionRules: the rules of one type at one directory, in their order. A directory may have a hundred
// thousand rules, so a large set has an index by pattern.
#pragma once

#include "Backup/File/YSelectionDescriptor.h"

#include <memory>
#include <set>
#include <vector>

namespace Backup::File {

class BACKUP_API YSelectionRules
{
public:
    /// The set as its iteration shows it: in the order of the rules.
    using Rule = YSelectionDescriptor;
    using const_iterator = std::set<Rule>::const_iterator;
    using Prepared = std::set<Rule>::node_type;

    /// A question about a rule: a reference to a callable object, which must outlive the call that takes it.
    class Condition
    {
    public:
        /// Refers to `callable`, which gets a rule and returns a bool.
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
    YSelectionRules(const YSelectionRules& other);
    YSelectionRules& operator=(const YSelectionRules& other);
    ~YSelectionRules();

    /// The iteration.
    const_iterator begin() const { return m_rules.begin(); }
    const_iterator end() const { return m_rules.end(); }
    std::size_t size() const { return m_rules.size(); }
    bool empty() const { return m_rules.empty(); }
    /// Whether any is recursive: within one type that is the first field of the order.
    bool HasRecursive() const { return !empty() && m_rules.rbegin()->IsRecursive(); }

    /// The rule that equals this one, explicit flag included; end() if there is none.
    const_iterator Find(const Rule& rule) const;
    /// False, with the stored rule unchanged, if the set has a rule of the same place in the order.
    bool Insert(Prepared&& rule) noexcept;
    /// Takes the memory that this rule needs.
    static Prepared Prepare(const Rule& rule);
    /// Drops all rules, without need of memory.
    void Clear() noexcept;
    /// Drops this rule, which is one of the set.
    void Erase(const Rule& stored);

    // Whether any rule of a kind meets the condition. The rules are asked in any order, perhaps one of them
    // twice, until one answers true.

    /// The rules that match the name, or only the recursive ones of these.
    bool AnyMatching(const YString& name, bool recursiveOnly, Condition condition) const;
    /// The rules that cover all names.
    bool AnyCoveringAllNames(Condition condition) const;
    /// The rules that cover the candidate: those that can prune it.
    bool AnyCovering(const Rule& candidate, Condition condition) const;

    /// Drops the rules that `rule` covers and for which `mayErase`, asked in order, answers true. Returns
    /// their number. After an exception all rules are still there.
    std::size_t EraseCovered(const Rule& rule, Condition mayErase);

private:
    struct Index;
    using Pointers = std::vector<const Rule*>;

    Pointers FindCovered(const Rule& rule) const;
    void RebuildIndex();
    void TryToIndex(const Rule& rule);

    std::set<Rule> m_rules;
    std::unique_ptr<Index> m_index; // null for a small set, or if there was no memory for it
};

} // namespace Backup::File
