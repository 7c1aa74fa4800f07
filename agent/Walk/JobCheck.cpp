#include "agent/Walk/JobCheck.h"

#include "agent/Run/Text.h"

#include "Backup/File/YSelectionPathDescriptor.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <optional>
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
    // The library reads an empty path as the root in an exclude, and refuses it in an include.
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

// Returns the error that the call raises.
template <class Call>
std::optional<Krt::Exception::YError> ErrorOf(Call call)
{
    try {
        call();
    } catch (const Krt::Exception::YError& error) {
        return error;
    }
    return std::nullopt;
}

// Returns the key whose value cannot be read as a T, after the keys in which it is nested, separated by dots.
// Empty if no single value is the cause, as for a missing key, which the error names.
template <class T>
std::string FindRefusedKey(const YObject& object)
{
    const YObject valid = T().ToJSON();
    for (const auto& [key, unused] : valid.Entries()) {
        const boost::shared_ptr<YValue>& value = object.FindOpt(key);
        YObject otherwiseValid = valid;
        otherwiseValid.Put(key, value);
        if (value == nullptr || !ErrorOf([&] { T().FromJSON(otherwiseValid); }))
            continue;
        std::string inner;
        if constexpr (std::is_same_v<T, YSelectionDescriptor>) {
            if (key == "descriptor" && value->IsObject())
                inner = FindRefusedKey<Krt::Match::Descriptor>(value->AsObject());
        }
        return "." + key.Bytes() + inner;
    }
    return "";
}

class Check
{
public:
    explicit Check(const std::function<void(const JobFinding&)>& visit) : m_visit(visit) {}

    void OfJob(const YObject& job)
    {
        OfKeys(job, JobKeys);
        for (const std::string_view array : JobKeys) {
            const boost::shared_ptr<YValue>& rules = job.FindOpt(YString(array));
            if (rules == nullptr)
                continue;
            if (const auto error = ErrorOf([&] { rules->AsArray(); })) {
                m_visit({true, std::string(array) + ": " + ReasonOf(*error).Bytes()});
                continue;
            }
            m_array = array;
            m_index = 0;
            for (const boost::shared_ptr<YValue>& rule : rules->AsArray()) {
                OfRule(*rule);
                ++m_index;
            }
        }
    }

private:
    void OfRule(const YValue& value)
    {
        YString path;
        YSelectionDescriptor read;
        std::string place;
        const YObject* fields = nullptr; // of the descriptor
        if (value.IsObject())
            OfKeysOfRule(value.AsObject());
        const auto error = ErrorOf([&] {
            const YObject& object = value.AsObject();
            const boost::shared_ptr<YValue>& text = object.Find("path", Krt::MessageType::Runtime);
            place = ".path";
            path = text->AsString();
            place.clear();
            const boost::shared_ptr<YValue>& descriptor =
                object.Find("descriptor", Krt::MessageType::Runtime);
            place = ".descriptor";
            fields = &descriptor->AsObject();
            read.FromJSON(*fields);
        });
        if (error) {
            if (fields != nullptr)
                place += FindRefusedKey<YSelectionDescriptor>(*fields);
            Found(true, place, ReasonOf(*error).Bytes());
            return;
        }
        const Rule rule{m_array == "includes", path.Bytes(), read};
        for (const auto& check : RuleChecks) {
            if (check.applies(rule))
                Found(check.isError, "",
                      std::string(check.text) + " (path '" + std::string(rule.path) + "', pattern '" +
                          std::string(rule.Pattern()) + "')");
        }
    }

    void OfKeysOfRule(const YObject& object)
    {
        OfKeys(object, RuleKeys);
        const boost::shared_ptr<YValue>& descriptor = object.FindOpt("descriptor");
        if (descriptor == nullptr || !descriptor->IsObject())
            return;
        OfKeys(descriptor->AsObject(), m_descriptor, ".descriptor");
        const boost::shared_ptr<YValue>& pattern = descriptor->AsObject().FindOpt("descriptor");
        if (pattern != nullptr && pattern->IsObject())
            OfKeys(pattern->AsObject(), m_pattern, ".descriptor.descriptor");
    }

    static bool Has(std::span<const std::string_view> keys, const YString& key)
    {
        return std::find(keys.begin(), keys.end(), key.Bytes()) != keys.end();
    }
    static bool Has(const YObject& object, const YString& key) { return object.FindOpt(key) != nullptr; }

    template <class Known>
    void OfKeys(const YObject& object, const Known& known, const char* place = "")
    {
        for (const auto& [key, value] : object.Entries()) {
            if (!Has(known, key))
                Found(true, place, "unknown key '" + key.Bytes() + "'");
        }
    }

    void Found(bool isError, const std::string& place, const std::string& text) const
    {
        std::string where;
        if (!m_array.empty())
            where = std::string(m_array) + "[" + std::to_string(m_index) + "]" + place + ": ";
        m_visit({isError, where + text});
    }

    const std::function<void(const JobFinding&)>& m_visit;
    // with all keys that a rule can have
    const YObject m_descriptor = YSelectionDescriptor().ToJSON();
    const YObject m_pattern = Krt::Match::Descriptor().ToJSON();
    std::string_view m_array; // the array that is being checked; empty outside of both
    std::size_t m_index = 0;  // of the rule in the array
};

} // namespace

void CheckJob(const YObject& job, const std::function<void(const JobFinding&)>& visit)
{
    Check(visit).OfJob(job);
}

} // namespace Agent
