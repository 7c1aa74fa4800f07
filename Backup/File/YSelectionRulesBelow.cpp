#include "Backup/File/YSelectionRulesBelow.h"

#include "Backup/File/YSelectionNodeWalk.h"

#include <algorithm>
#include <numeric>

namespace Backup::File {

using Krt::Match::MatchType;

namespace {

int CompareBegins(std::string_view a, std::string_view b)
{
    return a.compare(b);
}

int CompareEnds(std::string_view a, std::string_view b)
{
    const auto [x, y] = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend());
    if (x == a.rend() || y == b.rend())
        return (x != a.rend()) - (y != b.rend());
    return static_cast<unsigned char>(*x) < static_cast<unsigned char>(*y) ? -1 : 1;
}

constexpr char Wildcards[] = "*?";

} // namespace

YSelectionRulesBelow::YSelectionRulesBelow(Node& top)
{
    Node::Walk walk(top);
    for (walk.Next(); walk.Current() != nullptr; walk.Next()) {
        auto* const node = const_cast<Node*>(walk.Current());
        for (const YSelectionRules* const rules : {&node->m_includes, &node->m_excludes}) {
            for (const YSelectionDescriptor& rule : *rules)
                m_entries.push_back({rule.GetDescriptor().GetPattern().Bytes(), &rule, node});
        }
    }
    const auto sort = [this](Order& order, auto compare) {
        order.resize(m_entries.size());
        std::iota(order.begin(), order.end(), 0U);
        std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
            return compare(m_entries[a].pattern, m_entries[b].pattern) < 0;
        });
    };
    sort(m_byBegin, CompareBegins);
    sort(m_byEnd, CompareEnds);
}

std::vector<YSelectionRulesBelow::Entry*> YSelectionRulesBelow::FindPruned(const YSelectionDescriptor& rule)
{
    std::vector<Entry*> entries = FindCandidates(rule.GetDescriptor());
    std::erase_if(entries, [&](const Entry* entry) {
        const bool isExplicit = entry->rule->IsInclude() && entry->rule->GetExplicitSelection();
        return isExplicit || !rule.CanPrune(*entry->rule);
    });
    std::sort(entries.begin(), entries.end());
    return entries;
}

// All entries that the names cover, and perhaps others. A pattern is covered by the same one, or else it is a
// name that a Glob matches. Such a name begins with the Glob's text before the first wildcard and ends with
// its text after the last. The longer of the two texts leaves fewer candidates.
std::vector<YSelectionRulesBelow::Entry*>
YSelectionRulesBelow::FindCandidates(const Krt::Match::Descriptor& names)
{
    const std::string_view pattern = names.GetPattern().Bytes();
    const std::size_t first = pattern.find_first_of(Wildcards);
    const bool isGlob = names.GetMatchType() == MatchType::Glob;
    if (isGlob && !names.IsCaseSensitive())
        return Range(m_byBegin, "", CompareBegins);
    if (!isGlob || first == std::string_view::npos)
        return Range(m_byBegin, pattern, CompareBegins);
    const std::string_view begin = pattern.substr(0, first);
    const std::string_view end = pattern.substr(pattern.find_last_of(Wildcards) + 1);
    return begin.size() > end.size() ? Range(m_byBegin, begin, CompareBegins)
                                     : Range(m_byEnd, end, CompareEnds);
}

// The entries whose pattern begins with the text, or ends with it, as `compare` looks at it.
template <class Compare>
std::vector<YSelectionRulesBelow::Entry*> YSelectionRulesBelow::Range(const Order& order,
                                                                      std::string_view text, Compare compare)
{
    const bool atEnd = &order == &m_byEnd;
    const auto holds = [&](const Entry& entry) {
        return atEnd ? entry.pattern.ends_with(text) : entry.pattern.starts_with(text);
    };
    std::vector<Entry*> found;
    auto place =
        std::lower_bound(order.begin(), order.end(), text, [&](std::uint32_t a, std::string_view wanted) {
            return compare(m_entries[a].pattern, wanted) < 0;
        });
    for (; place != order.end() && holds(m_entries[*place]); ++place) {
        if (m_entries[*place].rule != nullptr)
            found.push_back(&m_entries[*place]);
    }
    return found;
}

} // namespace Backup::File
