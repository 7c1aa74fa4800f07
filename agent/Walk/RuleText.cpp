#include "agent/Walk/RuleText.h"

#include "agent/Repository/Json.h"

#include <algorithm>

namespace Agent {

using Backup::File::YSelectionPathDescriptor;
using Krt::Match::Descriptor;
using Krt::Match::MatchType;
using Repo::JsonReader;

namespace {

std::string NamesOf(const Descriptor& names)
{
    const std::string pattern = "'" + names.GetPattern().Bytes() + "'";
    const char* const anyCase = names.IsCaseSensitive() ? "" : " in upper or lower case";
    switch (names.GetMatchType()) {
    case MatchType::Any:
        return "everything";
    case MatchType::Exact:
        return "the name " + pattern + anyCase;
    case MatchType::Glob:
        return "names like " + pattern + anyCase;
    case MatchType::None:
        break;
    }
    return "nothing";
}

} // namespace

std::string RulePhrase(const YSelectionPathDescriptor& rule)
{
    const std::string place = rule.GetPath().IsEmpty() ? "/" : rule.GetPath().Bytes();
    const char* const verb = rule.IsInclude()          ? "include "
                             : rule.GetReportExclude() ? "exclude "
                                                       : "exclude silently ";
    return verb + NamesOf(rule.GetDescriptor()) + (rule.IsRecursive() ? " in " : " directly in ") + place +
           (rule.IsRecursive() ? " and below" : "") +
           (rule.IsInclude() && rule.GetExplicitSelection() ? ", explicitly" : "");
}

void VisitRuleSources(std::string_view jobText, const std::function<void(const RuleSource&)>& visit)
{
    std::size_t counted = 0; // bytes whose lines are counted
    std::size_t line = 1;
    JsonReader reader(jobText);
    reader.BeginObject();
    for (std::string_view key; reader.NextKey(key);) {
        if (key != "includes" && key != "excludes") {
            reader.Skip();
            continue;
        }
        const std::string_view array = key == "includes" ? "includes" : "excludes"; // outlives the text
        reader.BeginArray();
        for (std::size_t index = 0; reader.NextItem(); ++index) {
            const std::string_view rule = reader.Skip();
            const auto begin = static_cast<std::size_t>(rule.data() - jobText.data());
            const std::string_view passed = jobText.substr(counted, begin - counted);
            line += static_cast<std::size_t>(std::count(passed.begin(), passed.end(), '\n'));
            counted = begin;
            visit({array, index, line, rule});
        }
    }
}

} // namespace Agent
