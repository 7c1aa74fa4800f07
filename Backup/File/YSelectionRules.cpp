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

void YSelectionRules::Erase(const_iterator position)
{
    if (m_index != nullptr)
        m_index->Remove(*position);
    m_rules.erase(position);
}

// All are found before the first goes, so that a failure changes nothing.
std::size_t YSelectionRules::EraseCovered(const Rule& rule, const std::function<bool(const Rule&)>& mayGo)
{
    std::vector<const_iterator> covered;
    const auto consider = [&](const_iterator stored) {
        if (rule.CanPrune(*stored) && mayGo(*stored))
            covered.push_back(stored);
    };
    if (m_index == nullptr || MayCoverOtherPatterns(rule)) {
        for (auto stored = m_rules.begin(); stored != m_rules.end(); ++stored)
            consider(stored);
        if (covered.empty())
            return 0;
        m_index.reset();
        for (const const_iterator stored : covered)
            m_rules.erase(stored);
        RemakeIndex();
    } else {
        Pointers samePattern;
        const auto gather = [&](const Rule& stored) {
            samePattern.push_back(&stored);
            return false;
        };
        m_index->VisitPattern(rule.GetDescriptor().GetPattern(), gather);
        std::sort(samePattern.begin(), samePattern.end(),
                  [](const Rule* a, const Rule* b) { return *a < *b; });
        for (const Rule* const stored : samePattern)
            consider(m_rules.find(*stored));
        for (const const_iterator stored : covered)
            Erase(stored);
    }
    return covered.size();
}

bool YSelectionRules::MayCoverOtherPatterns(const Rule& rule) const
{
    const Krt::Match::Descriptor& names = rule.GetDescriptor();
    return names.IsAny() || (names.GetMatchType() == MatchType::Glob && m_index->exactCount != 0);
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
    byPattern.emplace(rule.GetDescriptor().GetPattern().Bytes(), &rule);
    if (Pointers* const list = ListOf(*this, rule))
        list->push_back(&rule);
    exactCount += IsExact(rule);
}

void YSelectionRules::Index::Remove(const Rule& rule)
{
    const auto [first, last] = byPattern.equal_range(rule.GetDescriptor().GetPattern().Bytes());
    byPattern.erase(std::find_if(first, last, [&](const auto& entry) { return entry.second == &rule; }));
    if (Pointers* const list = ListOf(*this, rule))
        list->erase(std::find(list->begin(), list->end(), &rule));
    exactCount -= IsExact(rule);
}

} // namespace Backup::File
