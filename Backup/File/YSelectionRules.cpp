#include "Backup/File/YSelectionRules.h"

#include "Backup/File/GlobIndex.h"
#include "Backup/File/NameIndex.h"

#include "Krt/String/Ascii.h"

#include <boost/unordered/unordered_flat_set.hpp>

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

std::string_view PatternOf(const YSelectionDescriptor& rule)
{
    return rule.GetDescriptor().GetPattern().Bytes();
}

// Does what Check does. Most rules are exact, and these are compared without a call.
bool Matches(const YString& name, const Krt::Match::Descriptor& names)
{
    if (names.GetMatchType() == MatchType::Exact)
        return Krt::String::Equals(name.Bytes(), names.GetPattern().Bytes(), names.IsCaseSensitive());
    return Krt::Match::Check(name, names);
}

// Returns true if the rule is in GlobIndex.
bool MatchesOtherNames(const YSelectionDescriptor& rule)
{
    const Krt::Match::Descriptor& names = rule.GetDescriptor();
    return !rule.CoversAllNames() && (names.GetMatchType() == MatchType::Glob ||
                                      (names.GetMatchType() == MatchType::Exact && !names.IsCaseSensitive()));
}

} // namespace

// Where a large set finds its rules. A rule matches its pattern as a name, all names, or other names as a
// glob or regardless of case. So the rules for a name are in `byPattern` with `furtherByPattern`, `allNames`
// or `globs`; a rule may be in two of them. The rules that a glob covers are exact, and are found by `exact`.
// The set owns the rules. A query changes nothing here.
struct KRT_HIDDEN YSelectionRules::Index
{
    // Raises std::bad_alloc, after which the index may only be destroyed.
    void Add(const Rule& rule);
    void Remove(const Rule& rule);
    NameIndex& Exact(const std::set<Rule>& rules);
    template <class Visitor>
    bool AnyOfPattern(const YString& pattern, Visitor&& visitor) const
    {
        const auto found = byPattern.find(std::string_view(pattern.Bytes()));
        if (found == byPattern.end())
            return false;
        if (visitor(*found->rule))
            return true;
        const auto [first, last] = furtherByPattern.equal_range(pattern.Bytes());
        return std::any_of(first, last, [&](const auto& entry) { return visitor(*entry.second); });
    }
    bool AnyForAllNames(Condition condition) const
    {
        return std::any_of(allNames.begin(), allNames.end(),
                           [&](const Rule* rule) { return condition(*rule); });
    }

    // The first rule of a pattern. The table consists of pointers alone, so that much of it is in the caches.
    struct First
    {
        mutable const Rule* rule; // may be replaced by another one with the same pattern
    };
    struct Hash
    {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
        std::size_t operator()(const First& entry) const { return (*this)(PatternOf(*entry.rule)); }
    };
    struct IsEqual
    {
        using is_transparent = void;
        bool operator()(const First& a, const First& b) const { return (*this)(PatternOf(*a.rule), b); }
        bool operator()(std::string_view a, const First& b) const { return a == PatternOf(*b.rule); }
        bool operator()(const First& a, std::string_view b) const { return (*this)(b, a); }
    };

    // The first rule of each pattern, which is the name that an exact rule matches.
    boost::unordered_flat_set<First, Hash, IsEqual> byPattern;
    // The other rules of these patterns. The views are into the rules.
    std::unordered_multimap<std::string_view, const Rule*> furtherByPattern;
    Pointers allNames; // those that cover all names: a few at most, since each covers its equals
    GlobIndex globs;   // further ones that may match a name that is not their pattern
    std::size_t exactCount = 0;
    std::unique_ptr<NameIndex> exact; // nullptr until a glob is added, or if it has outgrown its use
};

// Returns the index of all exact rules.
NameIndex& YSelectionRules::Index::Exact(const std::set<Rule>& rules)
{
    if (exact == nullptr) {
        auto index = std::make_unique<NameIndex>();
        for (const Rule& rule : rules) {
            if (IsExact(rule))
                index->Add(rule);
        }
        exact = std::move(index);
    }
    return *exact;
}

void YSelectionRules::Index::Add(const Rule& rule)
{
    if (!byPattern.insert(First{&rule}).second)
        furtherByPattern.emplace(PatternOf(rule), &rule);
    if (rule.CoversAllNames())
        allNames.push_back(&rule);
    else if (MatchesOtherNames(rule))
        globs.Add(rule);
    if (!IsExact(rule))
        return;
    ++exactCount;
    if (exact == nullptr)
        return;
    exact->Add(rule);
    if (exact->IsOutgrown())
        exact.reset();
}

void YSelectionRules::Index::Remove(const Rule& rule)
{
    if (rule.CoversAllNames())
        allNames.erase(std::find(allNames.begin(), allNames.end(), &rule));
    else if (MatchesOtherNames(rule))
        globs.Remove(rule);
    if (IsExact(rule)) {
        --exactCount;
        if (exact != nullptr)
            exact->Remove(&rule);
    }
    const auto first = byPattern.find(First{&rule});
    const auto [next, last] = furtherByPattern.equal_range(PatternOf(rule));
    if (first->rule != &rule) {
        furtherByPattern.erase(
            std::find_if(next, last, [&](const auto& entry) { return entry.second == &rule; }));
    } else if (next == last) {
        byPattern.erase(first);
    } else {
        first->rule = next->second;
        furtherByPattern.erase(next);
    }
}

YSelectionRules::YSelectionRules() = default;

YSelectionRules::YSelectionRules(const YSelectionRules& other)
{
    *this = other;
}

YSelectionRules& YSelectionRules::operator=(const YSelectionRules& other)
{
    if (this != &other) {
        std::set<Rule> rules(other.m_rules);
        m_index.reset();
        m_rules.swap(rules);
        m_recursiveCount = other.m_recursiveCount;
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
    m_recursiveCount += inserted.position->IsRecursive() ? 1 : 0;
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
    m_recursiveCount = 0;
}

void YSelectionRules::Erase(const Rule& stored)
{
    const auto position = m_rules.find(stored);
    if (m_index != nullptr)
        m_index->Remove(*position);
    m_recursiveCount -= position->IsRecursive() ? 1 : 0;
    m_rules.erase(position);
}

// The step from the last rule to the end is left out: it would be a walk up the tree, and most sets have one
// rule.
template <class Predicate>
bool YSelectionRules::AnyRule(Predicate matches) const
{
    auto rule = m_rules.begin();
    for (std::size_t left = m_rules.size(); left != 0; --left) {
        if (matches(*rule))
            return true;
        if (left != 1)
            ++rule;
    }
    return false;
}

bool YSelectionRules::AnyMatching(const YString& name, bool recursiveOnly, Condition condition) const
{
    const auto matches = [&](const Rule& rule) {
        return (!recursiveOnly || rule.IsRecursive()) && Matches(name, rule.GetDescriptor()) &&
               condition(rule);
    };
    if (m_index == nullptr)
        return AnyRule(matches);
    return (m_index->exactCount != 0 && m_index->AnyOfPattern(name, matches)) ||
           m_index->AnyForAllNames(matches) || m_index->globs.Any(name, matches);
}

bool YSelectionRules::AnyCoveringAllNames(Condition condition) const
{
    if (m_index != nullptr)
        return m_index->AnyForAllNames(condition);
    return AnyRule([&](const Rule& rule) { return rule.CoversAllNames() && condition(rule); });
}

bool YSelectionRules::AnyCovering(const Rule& candidate, Condition condition) const
{
    const auto matches = [&](const Rule& rule) {
        return condition(rule) && rule.CanPrune(candidate);
    };
    if (m_index == nullptr)
        return AnyRule(matches);
    // A rule covers its own pattern or all names. A rule that covers a name also matches it.
    const YString& pattern = candidate.GetDescriptor().GetPattern();
    return m_index->AnyOfPattern(pattern, matches) || m_index->AnyForAllNames(matches) ||
           (IsExact(candidate) && m_index->globs.Any(pattern, matches));
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

// Returns the rules in their order. It may create the index of exact rules, so only a change of the set calls
// it.
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
    if (isGlob && m_index->exactCount != 0) {
        for (const NameIndex::Entry& entry : m_index->Exact(m_rules).FindPruned(rule))
            covered.push_back(entry.rule);
    }
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
