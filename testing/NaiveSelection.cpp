#include "testing/NaiveSelection.h"

#include "testing/LogCapture.h"
#include "testing/Printed.h"
#include "testing/SelectionText.h"

#include "Backup/File/YSelectionExplanation.h"

#include "Krt/String/Printable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <random>
#include <set>
#include <sstream>

namespace Testing {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionPathDescriptor;
using Krt::Match::MatchType;

namespace {

// Returns true if the first path is the second or one of its parents.
bool IsAtOrAbove(const std::vector<std::string>& upper, const std::vector<std::string>& path)
{
    return upper.size() <= path.size() && std::equal(upper.begin(), upper.end(), path.begin());
}

std::string PruningLine(const YSelectionDescriptor& rule, const YSelectionPathDescriptor& pruned)
{
    const YSelectionDescriptor& unplaced = pruned;
    std::string line;
    Krt::String::AppendPrintable(line, "YSelectionManagerNode: At node for " + pruned.GetPath().Bytes() +
                                           (pruned.IsInclude() ? " include" : " exclude") + " descriptor " +
                                           Printed(rule) + " prunes " + Printed(unplaced));
    return line;
}

} // namespace

NaiveSelection::Names NaiveSelection::Split(const std::string& path)
{
    Names names;
    std::istringstream input(path);
    for (std::string name; std::getline(input, name, '/');) {
        if (!name.empty() && name != ".")
            names.push_back(name);
    }
    return names;
}

bool NaiveSelection::Add(const YSelectionPathDescriptor& rule)
{
    const Names place = Split(rule.GetPath().Bytes());
    const auto covers = [&](const Placed& other) {
        const bool samePlace = other.place == place;
        const bool fromAbove = IsAtOrAbove(other.place, place) && other.rule.IsRecursive() &&
                               !(other.rule.IsInclude() && other.rule.GetExplicitSelection());
        return (samePlace || fromAbove) && other.rule.CanPrune(rule);
    };
    if (std::any_of(m_rules.begin(), m_rules.end(), covers))
        return false;
    const auto isPruned = [&](const Placed& other) {
        const bool below = rule.IsRecursive() && IsAtOrAbove(place, other.place) &&
                           !(other.rule.IsInclude() && other.rule.GetExplicitSelection());
        return (other.place == place || below) && rule.CanPrune(other.rule);
    };
    for (const Placed& other : InOrder()) {
        if (isPruned(other))
            m_pruningLog.push_back(PruningLine(rule, other.rule));
    }
    std::erase_if(m_rules, isPruned);
    m_rules.push_back({place, rule});
    return true;
}

std::vector<NaiveSelection::Placed> NaiveSelection::InOrder() const
{
    std::vector<Placed> rules = m_rules;
    std::sort(rules.begin(), rules.end(), [](const Placed& a, const Placed& b) {
        return a.place != b.place ? a.place < b.place : a.rule < b.rule;
    });
    return rules;
}

std::string NaiveSelection::Words() const
{
    std::string words;
    for (const auto& [place, rule] : InOrder())
        words += (words.empty() ? "" : "; ") + Testing::Words(rule.GetPath(), rule);
    return words;
}

std::size_t NaiveSelection::CountPlaces() const
{
    std::set<Names> places{Names()};
    for (const Placed& placed : m_rules) {
        for (Names place = placed.place; !place.empty(); place.pop_back())
            places.insert(place);
    }
    return places.size();
}

NaiveSelection::SelectionType NaiveSelection::Ask(const std::string& path) const
{
    const Names names = Split(path);
    bool reportable = false;
    const bool included = IsIncluded(names);
    const bool excluded = IsExcluded(names, reportable);
    if (included && !excluded)
        return SelectionType::Include;
    if (excluded && !reportable)
        return SelectionType::NotSelectedDoNotRecurse;
    if (included)
        return SelectionType::Exclude;
    if (AllBelowSilentlyExcluded(names) || !MayIncludeBelow(names))
        return SelectionType::NotSelectedDoNotRecurse;
    return SelectionType::NotSelectedDoRecurse;
}

void NaiveSelection::ExpectAnswersOf(const Backup::File::YSelectionManager& tree,
                                     const std::string& path) const
{
    SCOPED_TRACE(path);
    const SelectionType answer = Ask(path);
    const bool enters = answer == SelectionType::Include || answer == SelectionType::NotSelectedDoRecurse;
    EXPECT_EQ(tree.GetPathSelectionType(path.c_str()), answer);
    EXPECT_EQ(tree.IsPathSelected(path.c_str()), answer == SelectionType::Include);
    EXPECT_EQ(tree.IsPathExcluded(path.c_str()), answer == SelectionType::Exclude);
    EXPECT_EQ(tree.IsPathNotSelected(path.c_str()), answer < SelectionType::Include);
    EXPECT_EQ(tree.IsPathSelectedOrSelectionParent(path.c_str()), enters);
    EXPECT_EQ(tree.ShouldEnumeratePath(path.c_str()), enters);

    ExpectExplanationOf(tree, path, answer);
    const Names names = Split(path);
    const Backup::File::YSelectionManager::Components components(names.begin(), names.end());
    bool reportable = false, isReported = false;
    const bool isExcluded = IsExcluded(names, isReported);
    EXPECT_EQ(tree.PathMatchesInclude(components), IsIncluded(names));
    EXPECT_EQ(tree.PathMatchesExclude(components, reportable), isExcluded);
    EXPECT_TRUE(!isExcluded || reportable == isReported);
    EXPECT_EQ(tree.AllChildrenOfPathAreExcludedNotReportably(components), AllBelowSilentlyExcluded(names));
    EXPECT_EQ(tree.AnyIncludesApplyBelowPath(components), MayIncludeBelow(names));
    for (std::size_t i = 0; i < names.size(); ++i)
        EXPECT_EQ(tree.IsAnyExplicitSelectionBelowComponent(components, i), IsExplicitFrom(names, i)) << i;
}

void NaiveSelection::ExpectExplanationOf(const Backup::File::YSelectionManager& tree, const std::string& path,
                                         SelectionType answer) const
{
    using Explanation = Backup::File::YSelectionExplanation;
    using Effect = Explanation::Effect;
    const Names names = Split(path);
    const Explanation explanation = tree.Explain(path.c_str());
    EXPECT_EQ(explanation.answer, answer);
    // Each rule that speaks of a name is listed once for it; what else is listed has no bearing on a name.
    const auto textOf = [](const YSelectionPathDescriptor& rule, Effect effect, std::size_t component) {
        return Testing::Words(rule.GetPath(), rule) + " " + std::to_string(static_cast<int>(effect)) + " " +
               std::to_string(component);
    };
    std::multiset<std::string> expected, listed;
    for (const Placed& placed : m_rules) {
        for (std::size_t i = placed.rule.IsInclude() ? names.size() - 1 : 0; i < names.size(); ++i) {
            const Effect effect = placed.rule.IsInclude()     ? Effect::Includes
                                  : !IsExplicitFrom(names, i) ? Effect::Excludes
                                                              : Effect::IsOverridden;
            if (SpeaksOf(placed, names, i))
                expected.insert(textOf(placed.rule, effect, i));
        }
    }
    int deciding = 0;
    for (const Explanation::Rule& rule : explanation.rules) {
        if (rule.effect == Effect::Overrides)
            EXPECT_TRUE(rule.rule.IsInclude() && rule.rule.GetExplicitSelection());
        else if (rule.effect != Effect::ReachesBelow && rule.effect != Effect::ExcludesEntries)
            listed.insert(textOf(rule.rule, rule.effect, rule.component));
        if (!rule.decides)
            continue;
        ++deciding;
        const bool isSilent = !rule.rule.GetReportExclude() &&
                              (rule.effect == Effect::Excludes || rule.effect == Effect::ExcludesEntries);
        EXPECT_FALSE(rule.isFurther);
        EXPECT_EQ(answer, rule.effect == Effect::Includes       ? SelectionType::Include
                          : rule.effect == Effect::ReachesBelow ? SelectionType::NotSelectedDoRecurse
                          : isSilent                            ? SelectionType::NotSelectedDoNotRecurse
                                                                : SelectionType::Exclude);
    }
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(deciding, explanation.reason == Explanation::Reason::NothingIncludes ? 0 : 1);
    ExpectDecisionBy(explanation, path);
}

void NaiveSelection::ExpectDecisionBy(const Backup::File::YSelectionExplanation& explanation,
                                      const std::string& path) const
{
    using Effect = Backup::File::YSelectionExplanation::Effect;
    const auto textOf = [](const YSelectionPathDescriptor& rule) {
        return Testing::Words(rule.GetPath(), rule);
    };
    const auto deciding = std::find_if(explanation.rules.begin(), explanation.rules.end(),
                                       [](const auto& rule) { return rule.decides; });
    if (deciding == explanation.rules.end())
        return;
    // Rules that would take over. An explicit include may be needed to override excludes, so it is none.
    std::set<std::string> equals;
    for (const auto& rule : explanation.rules) {
        const bool isExplicit = rule.rule.IsInclude() && rule.rule.GetExplicitSelection();
        if (rule.effect == deciding->effect && !isExplicit)
            equals.insert(textOf(rule.rule));
    }
    const std::string decidingText = textOf(deciding->rule);
    equals.erase(decidingText);
    NaiveSelection without, alone;
    for (const Placed& placed : m_rules) {
        const std::string text = textOf(placed.rule);
        if (text != decidingText)
            without.m_rules.push_back(placed);
        if (!equals.contains(text))
            alone.m_rules.push_back(placed);
    }
    EXPECT_EQ(alone.Ask(path), explanation.answer) << decidingText << " does not suffice";
    const Names names = Split(path);
    bool isReported = false;
    const bool hasOther =
        std::any_of(explanation.rules.begin(), explanation.rules.end(), [&](const auto& rule) {
            return rule.effect == deciding->effect && textOf(rule.rule) != decidingText;
        });
    if (deciding->effect == Effect::Includes || deciding->effect == Effect::Excludes) {
        const bool isDecided = deciding->effect == Effect::Includes ? without.IsIncluded(names)
                                                                    : without.IsExcluded(names, isReported);
        EXPECT_EQ(isDecided, hasOther) << decidingText << " is not needed";
    }
}

bool NaiveSelection::SpeaksOf(const Placed& placed, const Names& path, std::size_t index)
{
    const bool reaches =
        placed.rule.IsRecursive() ? placed.place.size() <= index : placed.place.size() == index;
    return reaches && IsAtOrAbove(placed.place, path) &&
           Krt::Match::Check(path[index].c_str(), placed.rule.GetDescriptor());
}

bool NaiveSelection::IsIncluded(const Names& path) const
{
    return std::any_of(m_rules.begin(), m_rules.end(), [&](const Placed& placed) {
        return placed.rule.IsInclude() && SpeaksOf(placed, path, path.size() - 1);
    });
}

bool NaiveSelection::IsExcluded(const Names& path, bool& reportable) const
{
    // The first directory from the top, and there the first name, determines what is reported.
    for (std::size_t depth = 0; depth < path.size(); ++depth) {
        for (std::size_t index = depth; index < path.size(); ++index) {
            bool matched = false;
            reportable = false;
            for (const Placed& placed : m_rules) {
                if (placed.rule.IsExclude() && placed.place.size() == depth &&
                    SpeaksOf(placed, path, index)) {
                    matched = true;
                    reportable |= placed.rule.GetReportExclude();
                }
            }
            if (matched && !IsExplicitFrom(path, index))
                return true;
        }
    }
    return false;
}

bool NaiveSelection::IsExplicitFrom(const Names& path, std::size_t index) const
{
    return std::any_of(m_rules.begin(), m_rules.end(), [&](const Placed& placed) {
        const auto& [place, rule] = placed;
        if (!rule.IsInclude() || !rule.GetExplicitSelection() || !IsAtOrAbove(place, path))
            return false;
        if (rule.IsRecursive()) // about everything below one of the names, or below the path itself
            return rule.CoversAllNames() && place.size() > index;
        return rule.GetDescriptor().GetMatchType() == MatchType::Exact && place.size() >= index &&
               place.size() < path.size() && SpeaksOf(placed, path, place.size());
    });
}

bool NaiveSelection::AllBelowSilentlyExcluded(const Names& path) const
{
    bool covered = false;
    for (const Placed& placed : m_rules) {
        if (placed.place != path || !placed.rule.IsExclude() || !placed.rule.CoversAllNames())
            continue;
        if (placed.rule.GetReportExclude())
            return false;
        covered = true;
    }
    return covered;
}

bool NaiveSelection::MayIncludeBelow(const Names& path) const
{
    return std::any_of(m_rules.begin(), m_rules.end(), [&](const Placed& placed) {
        return placed.rule.IsInclude() && (IsAtOrAbove(path, placed.place) ||
                                           (placed.rule.IsRecursive() && IsAtOrAbove(placed.place, path)));
    });
}

void CompareWithThePlainList(const World& world)
{
    using Strings = std::vector<std::string>;
    const char* fixed = std::getenv("SELECTION_SEED");
    const unsigned int seed =
        fixed ? static_cast<unsigned int>(std::strtoul(fixed, nullptr, 10)) : std::random_device()();
    SCOPED_TRACE("SELECTION_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](const Strings& choices) {
        return choices[random() % choices.size()];
    };
    const char* const rounds = std::getenv("SELECTION_ROUNDS");
    const int forests = static_cast<int>(world.forests * (rounds != nullptr ? std::atof(rounds) : 1));
    for (int forest = 0; forest < forests; ++forest) {
        Backup::File::YSelectionManager tree;
        NaiveSelection list;
        Strings added;
        const bool isLogged = forest % 2 == 0;
        std::optional<LogCapture> log;
        if (isLogged)
            log.emplace(Strings{"SelectionBuild"});
        for (unsigned int rules = 1 + random() % world.mostRules; rules > 0; --rules) {
            const std::string place = rules <= world.lastAtRoot ? "/" : pick(world.places);
            added.push_back(pick({"include ", "include ", "exclude ", "silent "}) + place +
                            pick({" ", " recursive "}) + pick(world.patterns) + pick({"", "", " explicit"}));
            const bool taken = list.Add(Rule(added.back()));
            EXPECT_EQ(tree.IsDescriptorRedundant(Rule(added.back())), !taken);
            ASSERT_EQ(tree.Add(Rule(added.back())), taken) << testing::PrintToString(added);
        }
        if (isLogged) {
            Strings lines = log->Texts();
            std::erase_if(lines,
                          [](const std::string& line) { return !line.starts_with("YSelectionManagerNode"); });
            EXPECT_EQ(lines, list.PruningLog());
            log.reset();
        }
        std::size_t nodes = 0;
        tree.VisitAllNodes([&](const auto*) { ++nodes; });
        EXPECT_EQ(nodes, list.CountPlaces());
        EXPECT_EQ(Testing::Words(tree), list.Words());
        for (const std::string& path : world.paths)
            list.ExpectAnswersOf(tree, path);
        if (forest % 8 == 0) {
            log.emplace(Strings{"SelectionQuery"});
            for (const std::string& path : world.paths)
                list.ExpectAnswersOf(tree, path);
        }
        ASSERT_FALSE(testing::Test::HasFailure()) << testing::PrintToString(added);
    }
}

} // namespace Testing
