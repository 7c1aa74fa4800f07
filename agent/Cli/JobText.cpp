#include "agent/Cli/JobText.h"

#include "agent/Cli/TextTable.h"
#include "agent/Repository/Json.h"
#include "agent/Run/Text.h"

#include "Krt/JSON/YValue.h"

#include <utility>

namespace Agent {

using Backup::File::YSelectionPathDescriptor;
using Krt::Match::MatchType;
using Repo::JsonWriter;

namespace {

std::string NamesOf(const YSelectionPathDescriptor& rule)
{
    const Krt::Match::Descriptor& names = rule.GetDescriptor();
    switch (names.GetMatchType()) {
    case MatchType::Any:
        return "(all)";
    case MatchType::None:
        return "(none)";
    case MatchType::Exact:
        // A name that looks like a pattern.
        if (names.GetPattern().Bytes().find_first_of("*?(") != std::string::npos)
            return "'" + Printable(names.GetPattern()) + "'";
        break;
    case MatchType::Glob:
        break;
    }
    return Printable(names.GetPattern());
}

std::string NotesOn(const YSelectionPathDescriptor& rule)
{
    std::string notes;
    const auto add = [&notes](bool applies, const char* note) {
        if (applies)
            notes += (notes.empty() ? "" : ", ") + std::string(note);
    };
    add(rule.IsExclude() && !rule.GetReportExclude(), "silent");
    add(rule.IsInclude() && rule.GetExplicitSelection(), "explicit");
    add(!rule.GetDescriptor().IsCaseSensitive() && !rule.GetDescriptor().IsAny(), "any case");
    return notes.empty() ? "-" : notes;
}

const char* WordOf(ReviewFinding::Level level)
{
    constexpr const char* Words[] = {"error", "warning", "note"};
    return Words[static_cast<std::size_t>(level)];
}

} // namespace

std::string JobTable(const std::vector<JobRule>& rules, unsigned int width)
{
    std::vector<TextRow> rows;
    rows.reserve(rules.size());
    for (const JobRule& each : rules) {
        const YSelectionPathDescriptor& rule = each.rule;
        rows.push_back({std::to_string(rows.size() + 1), std::to_string(each.line),
                        rule.IsInclude() ? "include" : "exclude", NamesOf(rule),
                        rule.IsRecursive() ? "in and below" : "directly in",
                        rule.GetPath().IsEmpty() ? "/" : Printable(rule.GetPath()), NotesOn(rule)});
    }
    return TableText({{.title = "RULE", .alignsRight = true},
                      {.title = "LINE", .alignsRight = true},
                      {"KIND"},
                      {.title = "NAMES", .mayBeCut = true},
                      {"REACH"},
                      {.title = "PLACE", .mayBeCut = true},
                      {"NOTES"}},
                     std::move(rows), width);
}

std::string JobJson(const std::vector<JobRule>& rules)
{
    std::string json;
    JsonWriter writer(json);
    writer.BeginObject();
    writer.Key("rules");
    writer.BeginArray();
    std::size_t number = 0;
    for (const JobRule& each : rules) {
        writer.BeginObject();
        writer.Key("number");
        writer.Number(++number);
        writer.Key("line");
        writer.Number(each.line);
        writer.Key("array");
        writer.String(each.array);
        writer.Key("index");
        writer.Number(each.index);
        writer.Key("path");
        writer.String(each.rule.GetPath().Bytes());
        writer.Key("descriptor");
        const Backup::File::YSelectionDescriptor& descriptor = each.rule;
        writer.Raw(
            Krt::JSON::YValue::FromObject(descriptor.YSelectionDescriptor::ToJSON()).Stringify(true).Bytes());
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    return PrintableJson(json);
}

std::string FindingText(const ReviewFinding& finding, const std::string& jobFile)
{
    std::string text = jobFile + ":";
    if (finding.line != 0)
        text += std::to_string(finding.line) + ":";
    text += std::string(" ") + WordOf(finding.level) + ": ";
    if (!finding.label.empty())
        text += finding.label + ": ";
    return text + finding.text;
}

std::string ReviewJson(const JobReview& review, const std::string& jobFile)
{
    std::string json;
    JsonWriter writer(json);
    writer.BeginObject();
    writer.Key("file");
    writer.String(jobFile);
    writer.Key("includes");
    writer.Number(review.includes);
    writer.Key("excludes");
    writer.Number(review.excludes);
    writer.Key("findings");
    writer.BeginArray();
    for (const ReviewFinding& finding : review.findings) {
        writer.BeginObject();
        writer.Key("level");
        writer.String(WordOf(finding.level));
        if (finding.line != 0) {
            writer.Key("line");
            writer.Number(finding.line);
        }
        if (!finding.label.empty()) {
            writer.Key("rule");
            writer.String(finding.label);
        }
        writer.Key("text");
        writer.String(finding.text);
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
    return PrintableJson(json);
}

} // namespace Agent
