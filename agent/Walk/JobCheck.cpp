#include "agent/Walk/JobCheck.h"

#include "Backup/File/YSelectionPathDescriptor.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <span>
#include <string_view>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Krt::Match::MatchType;

namespace {

constexpr std::string_view JobKeys[] = {"includes", "excludes"};
constexpr std::string_view RuleKeys[] = {"path", "descriptor"};
constexpr std::string_view DescriptorKeys[] = {"descriptor", "selection_type", "recursion_type",
                                               "report_exclude", "explicit_selection"};
constexpr std::string_view PatternKeys[] = {"pattern", "match_type", "case_sensitive"};

struct Rule
{
    bool isInIncludes; // of the document's two arrays
    std::string_view path;
    const YSelectionDescriptor& descriptor;

    std::string_view Pattern() const { return descriptor.GetDescriptor().GetPattern().Bytes(); }
    bool HasKind(MatchType kind) const { return descriptor.GetDescriptor().GetMatchType() == kind; }
    bool HasPattern() const { return HasKind(MatchType::Exact) || HasKind(MatchType::Glob); }
};

bool IsPathRelative(const Rule& rule)
{
    // The library takes an empty path for the root in an exclude, and refuses it in an include.
    return !rule.path.empty() && !rule.path.starts_with('/');
}

bool HasPathParentComponent(const Rule& rule)
{
    return (std::string(rule.path) + "/").find("/../") != std::string::npos;
}

bool HasPatternSlash(const Rule& rule)
{
    return rule.HasPattern() && rule.Pattern().find('/') != std::string_view::npos;
}

bool MatchesNoName(const Rule& rule)
{
    const std::string_view pattern = rule.Pattern();
    return rule.HasKind(MatchType::None) ||
           (rule.HasPattern() && (pattern.empty() || pattern == "." || pattern == ".."));
}

bool IsInTheOtherArray(const Rule& rule)
{
    return rule.descriptor.IsInclude() != rule.isInIncludes;
}

bool IsExplicitWithoutEffect(const Rule& rule)
{
    const YSelectionDescriptor& descriptor = rule.descriptor;
    const bool canBeExplicit =
        descriptor.IsRecursive() ? descriptor.CoversAllNames() : rule.HasKind(MatchType::Exact);
    return descriptor.GetExplicitSelection() && !canBeExplicit;
}

constexpr struct
{
    bool (*applies)(const Rule&);
    bool isError;
    const char* text;
} RuleChecks[] = {
    {IsPathRelative, true, "the path is not absolute, so the rule applies nowhere"},
    {HasPathParentComponent, true,
     "the path contains \"..\", which is not resolved, so the rule applies nowhere"},
    {HasPatternSlash, true,
     "the pattern contains a slash, but is compared with single names; put the directory into the path"},
    {MatchesNoName, false, "the rule matches no name"},
    {IsInTheOtherArray, false, "selection_type decides what the rule is, not the array that it is in"},
    {IsExplicitWithoutEffect, false,
     "explicit_selection has no effect with this match_type and recursion_type"},
};

class Check
{
public:
    explicit Check(const std::function<void(const JobFinding&)>& visit) : m_visit(visit) {}

    void OfJob(const YObject& job)
    {
        OfKeys(job, JobKeys);
        for (const std::string_view array : JobKeys) {
            const boost::shared_ptr<YValue>& rules = job.FindOpt(YString(array));
            if (rules == nullptr || !rules->IsArray())
                continue;
            m_array = array;
            m_index = 0;
            for (const boost::shared_ptr<YValue>& rule : rules->AsArray()) {
                if (rule->IsObject())
                    OfRule(rule->AsObject());
                ++m_index;
            }
        }
    }

private:
    void OfRule(const YObject& object)
    {
        OfKeys(object, RuleKeys);
        const boost::shared_ptr<YValue>& path = object.FindOpt("path");
        const boost::shared_ptr<YValue>& descriptor = object.FindOpt("descriptor");
        if (path == nullptr || !path->IsString() || descriptor == nullptr || !descriptor->IsObject())
            return;
        OfKeys(descriptor->AsObject(), DescriptorKeys, ".descriptor");
        const boost::shared_ptr<YValue>& pattern = descriptor->AsObject().FindOpt("descriptor");
        if (pattern != nullptr && pattern->IsObject())
            OfKeys(pattern->AsObject(), PatternKeys, ".descriptor.descriptor");
        YSelectionDescriptor read;
        try {
            read.FromJSON(descriptor->AsObject());
        } catch (const Krt::Exception::YError&) {
            return; // the library raises it again when the rules are made
        }
        const Rule rule{m_array == "includes", path->AsString().Bytes(), read};
        for (const auto& check : RuleChecks) {
            if (check.applies(rule))
                Found(check.isError, "",
                      std::string(check.text) + " (path '" + std::string(rule.path) + "', pattern '" +
                          std::string(rule.Pattern()) + "')");
        }
    }

    void OfKeys(const YObject& object, std::span<const std::string_view> known, const char* place = "")
    {
        for (const auto& [key, value] : object.Entries()) {
            if (std::find(known.begin(), known.end(), key.Bytes()) == known.end())
                Found(true, place, "there is no key '" + key.Bytes() + "'");
        }
    }

    void Found(bool isError, const char* place, const std::string& text) const
    {
        std::string where;
        if (!m_array.empty())
            where = std::string(m_array) + "[" + std::to_string(m_index) + "]" + place + ": ";
        m_visit({isError, where + text});
    }

    const std::function<void(const JobFinding&)>& m_visit;
    std::string_view m_array; // that the check is in; empty outside both
    std::size_t m_index = 0;  // of the rule in the array
};

} // namespace

void CheckJob(const YObject& job, const std::function<void(const JobFinding&)>& visit)
{
    Check(visit).OfJob(job);
}

} // namespace Agent
