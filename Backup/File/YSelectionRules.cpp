#include "Backup/File/YSelectionRules.h"

#include <new>

namespace Backup::File {

using Krt::Match::MatchType;

namespace {

// Which of the index's lists a rule stands in, beside the one by pattern; null for none.
template <class Index>
auto* ListOf(Index& index, const YSelectionDescriptor& rule)
{
    const Krt::Match::Descriptor& names = rule.GetDescriptor();
    if (rule.CoversAllNames())
        return &index.aboutAll;
    const bool isFoundByName = names.GetMatchType() == MatchType::None ||
                               (names.GetMatchType() == MatchType::Exact && names.IsCaseSensitive());
    return isFoundByName ? nullptr : &index.others;
}

bool IsExact(const YSelectionDescriptor& rule)
{
    return rule.GetDescriptor().GetMatchType() == MatchType::Exact;
}

} // namespace

YSelectionRules& YSelectionRules::operator=(const YSelectionRules& other)
{
    if (this != &other) {
        m_index.reset();
        m_rules = other.m_rules;
        RemakeIndex();
    }
    return *this;
}

YSelectionRules::const_iterator YSelectionRules::Find(const Rule& rule) const
{
    // Rules for any name are equal whatever their patterns hold, which the order does not know.
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
        RemakeIndex();
    else
        TryToIndex(*inserted.position);
    return true;
}

void YSelectionRules::Clear() noexcept
{
    m_index.reset();
    m_rules.clear();
}

void YSelectionRules::Erase(const_iterator position)
{
    if (m_index != nullptr)
        m_index->Remove(*position);
    m_rules.erase(position);
}

// All are found before the first goes, so that a failure changes nothing.
std::size_t YSelectionRules::EraseCovered(const Rule& rule, const std::function<bool(const Rule&)>& mayGo)
{
    Pointers covered = FindCovered(rule);
    std::erase_if(covered, [&](const Rule* stored) { return !mayGo(*stored); });
    // An index of what remains is made sooner than so much is taken out of it.
    const bool isMost = covered.size() > m_rules.size() / 2;
    if (isMost)
        m_index.reset();
    for (const Rule* const stored : covered)
        Erase(m_rules.find(*stored));
    if (isMost)
        RemakeIndex();
    return covered.size();
}

// In order.
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
    // Beside its own pattern a glob covers names, and nothing else covers more than its pattern.
    m_index->VisitPattern(names.GetPattern(), [&](const Rule& stored) {
        return names.GetMatchType() == MatchType::Glob && IsExact(stored) ? false : consider(stored);
    });
    if (names.GetMatchType() == MatchType::Glob)
        Index::Visit(m_index->exact, consider);
    std::sort(covered.begin(), covered.end(), [](const Rule* a, const Rule* b) { return *a < *b; });
    return covered;
}

void YSelectionRules::RemakeIndex()
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

void YSelectionRules::Index::Add(const Rule& rule)
{
    Pointers* const list = ListOf(*this, rule);
    byPattern.emplace(rule.GetDescriptor().GetPattern().Bytes(),
                      Place{&rule, exact.size(), list != nullptr ? list->size() : 0});
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

// The last of the rules moves to its place.
void YSelectionRules::Index::TakeOut(Pointers& rules, std::size_t Place::*position, const Rule& rule)
{
    const std::size_t freed = Find(rule)->second.*position;
    Find(*rules.back())->second.*position = freed;
    rules[freed] = rules.back();
    rules.pop_back();
}

void YSelectionRules::Index::Remove(const Rule& rule)
{
    if (IsExact(rule))
        TakeOut(exact, &Place::inExact, rule);
    if (Pointers* const list = ListOf(*this, rule))
        TakeOut(*list, &Place::inOthers, rule);
    byPattern.erase(Find(rule));
}

} // namespace Backup::File
