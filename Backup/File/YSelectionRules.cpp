#include "Backup/File/YSelectionRules.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <unordered_map>

namespace Backup::File {

using Krt::Match::MatchType;

namespace {

// A smaller set is searched without an index.
constexpr std::size_t LeastIndexed = 16;

bool IsExact(const YSelectionDescriptor& rule)
{
    return rule.GetDescriptor().GetMatchType() == MatchType::Exact;
}

} // namespace

struct KRT_HIDDEN YSelectionRules::Index
{
    // The position of a rule in each list that contains it.
    struct Positions
    {
        const Rule* rule;
        std::size_t inExact;  // if the rule is exact
        std::size_t inOthers; // in allNames or others, if one of them contains the rule
    };

    void Add(const Rule& rule);
    void Remove(const Rule& rule);
    template <class Visitor>
    bool AnyOfPattern(const YString& pattern, Visitor&& visitor) const
    {
        const auto [first, last] = byPattern.equal_range(pattern.Bytes());
        return std::any_of(first, last, [&](const auto& entry) { return visitor(*entry.second.rule); });
    }
    template <class Visitor>
    static bool AnyOf(const Pointers& rules, Visitor&& visitor)
    {
        return std::any_of(rules.begin(), rules.end(), [&](const Rule* rule) { return visitor(*rule); });
    }

    using ByPattern = std::unordered_multimap<std::string_view, Positions>;
    ByPattern::iterator Find(const Rule& rule);
    void TakeOut(Pointers& rules, std::size_t Positions::*position, const Rule& rule);
    Pointers* ListOf(const Rule& rule);

    // All rules by their pattern, which is the name that an exact rule matches. The views are into the rules.
    ByPattern byPattern;
    // In arbitrary order:
    Pointers allNames; // those that cover all names
    Pointers others;   // further ones that may match a name that is not their pattern
    Pointers exact;
};

void YSelectionRules::Index::Add(const Rule& rule)
{
    Pointers* const list = ListOf(rule);
    byPattern.emplace(rule.GetDescriptor().GetPattern().Bytes(),
                      Positions{&rule, exact.size(), list != nullptr ? list->size() : 0});
    if (list != nullptr)
        list->push_back(&rule);
    if (IsExact(rule))
        exact.push_back(&rule);
}

YSelectionRules::Index::ByPattern::iterator YSelectionRules::Index::Find(const Rule& rule)
{
    const auto [first, last] = byPattern.equal_range(rule.GetDescriptor().GetPattern().Bytes());
    return std::find_if(first, last, [&](const auto& entry) { return entry.second.rule == &rule; });
}

// The last rule of the list moves to the position of the removed one.
void YSelectionRules::Index::TakeOut(Pointers& rules, std::size_t Positions::*position, const Rule& rule)
{
    const std::size_t freed = Find(rule)->second.*position;
    Find(*rules.back())->second.*position = freed;
    rules[freed] = rules.back();
    rules.pop_back();
}

// Returns the list that contains a rule in addition to byPattern and exact, or nullptr.
YSelectionRules::Pointers* YSelectionRules::Index::ListOf(const Rule& rule)
{
    if (rule.CoversAllNames())
        return &allNames;
    const bool isFoundByName = rule.GetDescriptor().GetMatchType() == MatchType::None ||
                               (IsExact(rule) && rule.GetDescriptor().IsCaseSensitive());
    return isFoundByName ? nullptr : &others;
}

void YSelectionRules::Index::Remove(const Rule& rule)
{
    if (IsExact(rule))
        TakeOut(exact, &Positions::inExact, rule);
    if (Pointers* const list = ListOf(rule))
        TakeOut(*list, &Positions::inOthers, rule);
    byPattern.erase(Find(rule));
}

YSelectionRules::YSelectionRules() = default;

YSelectionRules::YSelectionRules(const YSelectionRules& other)
{
    *this = other;
}

YSelectionRules& YSelectionRules::operator=(const YSelectionRules& other)
{
    if (this != &other) {
        m_index.reset();
        m_rules = other.m_rules;
        RebuildIndex();
    }
    return *this;
}

YSelectionRules::~YSelectionRules() = default;

YSelectionRules::const_iterator YSelectionRules::Find(const Rule& rule) const
{
    // Rules for any name are equal whatever their patterns are, which the order does not reflect.
    if (rule.GetDescriptor().IsAny())
        return std::find(m_rules.begin(), m_rules.end(), rule);
    const auto stored = m_rules.find(rule);
    return stored != m_rules.end() && *stored == rule ? stored : m_rules.end();
}

YSelectionRules::Prepared YSelectionRules::Prepare(const Rule& rule)
{
    std::set<Rule> alone{rule};
    return alone.extract(alone.begin());
}

bool YSelectionRules::Insert(Prepared&& rule) noexcept
{
    const auto inserted = m_rules.insert(std::move(rule));
    if (!inserted.inserted)
        return false;
    if (m_index == nullptr)
        RebuildIndex();
    else
        TryToIndex(*inserted.position);
    return true;
}

void YSelectionRules::Clear() noexcept
{
    m_index.reset();
    m_rules.clear();
}

void YSelectionRules::Erase(const Rule& stored)
{
    const auto position = m_rules.find(stored);
    if (m_index != nullptr)
        m_index->Remove(*position);
    m_rules.erase(position);
}

bool YSelectionRules::AnyMatching(const YString& name, bool recursiveOnly, Condition condition) const
{
    const auto holds = [&](const Rule& rule) {
        return (!recursiveOnly || rule.IsRecursive()) && Krt::Match::Check(name, rule.GetDescriptor()) &&
               condition(rule);
    };
    if (m_index == nullptr)
        return std::any_of(m_rules.begin(), m_rules.end(), holds);
    return m_index->AnyOfPattern(name, holds) || Index::AnyOf(m_index->allNames, holds) ||
           Index::AnyOf(m_index->others, holds);
}

bool YSelectionRules::AnyCoveringAllNames(Condition condition) const
{
    if (m_index != nullptr)
        return Index::AnyOf(m_index->allNames, condition);
    return std::any_of(m_rules.begin(), m_rules.end(),
                       [&](const Rule& rule) { return rule.CoversAllNames() && condition(rule); });
}

bool YSelectionRules::AnyCovering(const Rule& candidate, Condition condition) const
{
    const auto holds = [&](const Rule& rule) {
        return condition(rule) && rule.CanPrune(candidate);
    };
    if (m_index == nullptr)
        return std::any_of(m_rules.begin(), m_rules.end(), holds);
    // A rule covers its own pattern or all names. A rule that covers a name also matches it.
    const YString& pattern = candidate.GetDescriptor().GetPattern();
    return m_index->AnyOfPattern(pattern, holds) || Index::AnyOf(m_index->allNames, holds) ||
           (IsExact(candidate) && Index::AnyOf(m_index->others, holds));
}

// All rules are found before the first is erased, so that a failure changes nothing.
std::size_t YSelectionRules::EraseCovered(const Rule& rule, Condition mayErase)
{
    Pointers covered = FindCovered(rule);
    std::erase_if(covered, [&](const Rule* stored) { return !mayErase(*stored); });
    // Rebuilding the index for what remains is faster than removing more than half of the rules from it.
    const bool isMost = covered.size() > m_rules.size() / 2;
    if (isMost)
        m_index.reset();
    for (const Rule* const stored : covered)
        Erase(*stored);
    if (isMost)
        RebuildIndex();
    return covered.size();
}

// Returns the rules in their order.
YSelectionRules::Pointers YSelectionRules::FindCovered(const Rule& rule) const
{
    Pointers covered;
    const auto consider = [&](const Rule& stored) {
        if (rule.CanPrune(stored))
            covered.push_back(&stored);
        return false;
    };
    const Krt::Match::Descriptor& names = rule.GetDescriptor();
    if (m_index == nullptr || names.IsAny()) {
        std::for_each(m_rules.begin(), m_rules.end(), consider);
        return covered;
    }
    // A glob covers names in addition to its own pattern. The other kinds cover only their pattern.
    const bool isGlob = names.GetMatchType() == MatchType::Glob;
    m_index->AnyOfPattern(names.GetPattern(), [&](const Rule& stored) {
        return isGlob && IsExact(stored) ? false : consider(stored);
    });
    if (isGlob)
        Index::AnyOf(m_index->exact, consider);
    std::sort(covered.begin(), covered.end(), [](const Rule* a, const Rule* b) { return *a < *b; });
    return covered;
}

void YSelectionRules::RebuildIndex()
{
    m_index.reset();
    if (m_rules.size() < LeastIndexed)
        return;
    m_index.reset(new (std::nothrow) Index);
    for (auto rule = m_rules.begin(); m_index != nullptr && rule != m_rules.end(); ++rule)
        TryToIndex(*rule);
}

void YSelectionRules::TryToIndex(const Rule& rule)
{
    try {
        m_index->Add(rule);
    } catch (const std::bad_alloc&) {
        m_index.reset(); // answers are the same without it
    }
}

} // namespace Backup::File
