#include "agent/Explain/RuleSources.h"

#include "agent/Repository/Json.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Krt::YString;
using Krt::File::YPath;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Repo::JsonReader;

namespace {

constexpr const char* Blanks = " \t";

// The text of a path by which equal directories are equal.
std::string Normalized(const YPath& path)
{
    std::string text;
    for (const YString& component : path.PopulateComponents())
        text += "/" + component.Bytes();
    return text;
}

// The normalized path of a rule. Only escapes need the parser of the rules.
std::string PathOf(std::string_view rule)
{
    JsonReader reader(rule);
    reader.BeginObject();
    std::string_view json = "\"\"";
    for (std::string_view key; reader.NextKey(key);) {
        const bool isPath = key == "path";
        const std::string_view value = reader.Skip();
        json = isPath ? value : json;
    }
    if (json.find('\\') == std::string_view::npos)
        return Normalized(YPath(json.substr(1, json.size() - 2)));
    const auto object = YValue::Parse("{\"path\":" + std::string(json) + "}");
    return Normalized(YPath(object->AsObject().Get<YString>("path", Krt::MessageType::Runtime)));
}

YSelectionDescriptor DescriptorOf(std::string_view rule)
{
    YSelectionDescriptor descriptor;
    descriptor.FromJSON(
        YValue::Parse(rule)->AsObject().Get<YObject>("descriptor", Krt::MessageType::Runtime));
    return descriptor;
}

} // namespace

RuleSources::RuleSources(std::string fileName, std::string text)
    : m_fileName(std::move(fileName)), m_text(std::move(text))
{
    VisitRuleSources(m_text, [this](const RuleSource& rule) {
        m_byPath.emplace(PathOf(rule.text), Spot{rule, std::nullopt});
    });
}

const RuleSource* RuleSources::Find(const Backup::File::YSelectionPathDescriptor& rule)
{
    const RuleSource* found = nullptr;
    const auto [first, last] = m_byPath.equal_range(Normalized(rule.GetPath()));
    for (auto each = first; each != last; ++each) {
        Spot& spot = each->second;
        if (!spot.rule)
            spot.rule = DescriptorOf(spot.source.text);
        const bool isEarlier = found == nullptr || spot.source.text.data() < found->text.data();
        if (isEarlier && *spot.rule == static_cast<const YSelectionDescriptor&>(rule))
            found = &spot.source;
    }
    return found;
}

// Returns the blanks before a rule that begins its line.
std::string_view RuleSources::IndentationOf(const RuleSource& source) const
{
    const std::string_view before(m_text.data(),
                                  static_cast<std::size_t>(source.text.data() - m_text.data()));
    const std::size_t lineBegin = before.rfind('\n') + 1; // 0 for the first line
    const std::string_view indentation = before.substr(lineBegin);
    return indentation.find_first_not_of(Blanks) == std::string_view::npos ? indentation : "";
}

std::vector<std::string_view> RuleSources::LinesOf(const RuleSource& source) const
{
    const std::string_view indentation = IndentationOf(source);
    std::vector<std::string_view> lines;
    for (std::size_t at = 0; at <= source.text.size();) {
        const std::size_t end = std::min(source.text.find('\n', at), source.text.size());
        std::string_view line = source.text.substr(at, end - at);
        if (at != 0 && line.starts_with(indentation))
            line.remove_prefix(indentation.size());
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        lines.push_back(line);
        at = end + 1;
    }
    return lines;
}

} // namespace Agent
