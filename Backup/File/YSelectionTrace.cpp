#include "Backup/File/YSelectionTrace.h"

#include <algorithm>

namespace Backup::File {

using Krt::File::YPath;
using Krt::Match::MatchType;
using Node = YSelectionManager::YSelectionManagerNode;

// Rules of one node. A set of rules passes them in any order, possibly twice.
class YSelectionManager::PathTrace::Found
{
public:
    // The rules for which `visit` calls the given function.
    template <class Visit>
    explicit Found(Visit visit)
    {
        visit([this](const YSelectionDescriptor& rule) {
            m_rules.push_back(&rule);
            return false;
        });
        std::sort(m_rules.begin(), m_rules.end(), [](const auto* a, const auto* b) { return *a < *b; });
        m_rules.erase(std::unique(m_rules.begin(), m_rules.end()), m_rules.end());
    }

    template <class Condition>
    Found& KeepIf(Condition condition)
    {
        std::erase_if(m_rules, [&](const YSelectionDescriptor* rule) { return !condition(*rule); });
        return *this;
    }

    auto begin() const { return m_rules.begin(); }
    auto end() const { return m_rules.end(); }

private:
    std::vector<const YSelectionDescriptor*> m_rules;
};

void YSelectionManager::PathTrace::Add(const Node& node, const Found& rules, Effect effect,
                                       std::size_t component) const
{
    const YPath path = node.GetPath();
    for (const YSelectionDescriptor* const rule : rules)
        m_state->explanation.rules.push_back(
            {YSelectionPathDescriptor(path, *rule), effect, component, false, m_state->isDecided});
}

void YSelectionManager::PathTrace::Include(const NodesOnPath& nodes, std::size_t depth) const
{
    const std::size_t last = nodes.components.size() - 1;
    const Found rules([&](const auto& visit) {
        nodes.At(depth)->m_includes.AnyMatching(nodes.components[last], depth != last, visit);
    });
    Add(*nodes.At(depth), rules, Effect::Includes, last);
    if (!m_state->isDecided)
        m_state->including = depth;
}

void YSelectionManager::PathTrace::Exclude(const NodesOnPath& nodes, std::size_t depth, std::size_t component,
                                           bool isOverridden) const
{
    const Found rules([&](const auto& visit) {
        nodes.At(depth)->m_excludes.AnyMatching(nodes.components[component], depth != component, visit);
    });
    Add(*nodes.At(depth), rules, isOverridden ? Effect::IsOverridden : Effect::Excludes, component);
    if (!m_state->isDecided && !isOverridden)
        m_state->excluding = {depth, component};
}

// Adds the rules of the first component from this one that is selected explicitly.
void YSelectionManager::PathTrace::Explicit(const NodesOnPath& nodes, std::size_t component) const
{
    for (std::size_t i = component;; ++i) {
        if (nodes.IsExplicitName(i))
            return ExplicitName(nodes, i);
        if (nodes.IsExplicitAll(i))
            return ExplicitAll(nodes, i);
    }
}

void YSelectionManager::PathTrace::ExplicitName(const NodesOnPath& nodes, std::size_t component) const
{
    const Node& node = *nodes.At(component);
    Found rules(
        [&](const auto& visit) { node.m_includes.AnyMatching(nodes.components[component], false, visit); });
    rules.KeepIf([](const YSelectionDescriptor& rule) {
        return rule.GetExplicitSelection() && !rule.IsRecursive() &&
               rule.GetDescriptor().GetMatchType() == MatchType::Exact;
    });
    Add(node, rules, Effect::Overrides, component);
}

void YSelectionManager::PathTrace::ExplicitAll(const NodesOnPath& nodes, std::size_t component) const
{
    const Node& node = *nodes.At(component + 1);
    Found rules([&](const auto& visit) { node.m_includes.AnyCoveringAllNames(visit); });
    rules.KeepIf(
        [](const YSelectionDescriptor& rule) { return rule.IsRecursive() && rule.GetExplicitSelection(); });
    Add(node, rules, Effect::Overrides, component);
}

void YSelectionManager::PathTrace::EntriesExcluded(const NodesOnPath& nodes) const
{
    const Node& node = *nodes.At(nodes.components.size());
    const Found rules([&](const auto& visit) { node.m_excludes.AnyCoveringAllNames(visit); });
    Add(node, rules, Effect::ExcludesEntries, nodes.components.size() - 1);
}

void YSelectionManager::PathTrace::IncludeBelow(const NodesOnPath& nodes, std::size_t depth) const
{
    const bool isAbove = depth != nodes.components.size();
    nodes.At(depth)->VisitPathsAndDescriptors(
        YSelectionDescriptor::Include,
        [&](const YPath& path, const YSelectionDescriptor& rule) {
            if (isAbove && !rule.IsRecursive())
                return false;
            m_state->explanation.rules.push_back({YSelectionPathDescriptor(path, rule), Effect::ReachesBelow,
                                                  nodes.components.size() - 1, false, false});
            return true;
        },
        !isAbove);
}

void YSelectionManager::PathTrace::Decided(Reason reason) const
{
    YSelectionExplanation& explanation = m_state->explanation;
    explanation.reason = reason;
    m_state->isDecided = true;
    const auto decides = [reason](const YSelectionExplanation::Rule& rule) {
        switch (reason) {
        case Reason::Included:
            return rule.effect == Effect::Includes;
        case Reason::Excluded:
            return rule.effect == Effect::Excludes && rule.rule.GetReportExclude();
        case Reason::ExcludedSilently:
            return rule.effect == Effect::Excludes;
        case Reason::EntriesExcluded:
            return rule.effect == Effect::ExcludesEntries;
        case Reason::EntriesMayBeIncluded:
            return rule.effect == Effect::ReachesBelow;
        case Reason::NothingIncludes:
            break;
        }
        return false;
    };
    const auto rule = std::find_if(explanation.rules.begin(), explanation.rules.end(), decides);
    if (rule != explanation.rules.end())
        rule->decides = true;
}

} // namespace Backup::File
