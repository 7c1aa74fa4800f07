#include "agent/Walk/JobCheck.h"

#include "agent/Run/Similar.h"
#include "agent/Run/Text.h"

#include "Backup/File/YSelectionPathDescriptor.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Krt::Match::MatchType;

namespace {

constexpr std::string_view JobKeys[] = {"includes", "excludes"};
constexpr std::string_view RuleKeys[] = {"path", "descriptor"};
constexpr struct
{
    std::string_view key;                  // of a descriptor, or of the pattern in it
    std::array<std::string_view, 4> words; // the last ones may be empty
} Words[] = {
    {"match_type", {"any", "exact", "glob", "none"}},
    {"selection_type", {"include", "exclude"}},
    {"recursion_type", {"recursive", "nonrecursive"}},
};

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

bool HasPathWildcard(const Rule& rule)
{
    return rule.path.find_first_of("*?") != std::string_view::npos;
}

bool HasLiteralWildcard(const Rule& rule)
{
    return rule.HasKind(MatchType::Exact) && rule.Pattern().find_first_of("*?") != std::string_view::npos;
}

bool HasBracketsInGlob(const Rule& rule)
{
    const std::size_t open = rule.Pattern().find('[');
    return rule.HasKind(MatchType::Glob) && open != std::string_view::npos &&
           rule.Pattern().find(']', open) != std::string_view::npos;
}

bool HasBlankAtEnd(const Rule& rule)
{
    const std::string_view pattern = rule.Pattern();
    return rule.HasPattern() && !pattern.empty() &&
           (pattern.find_first_of(" \t\r\n") == 0 || pattern.find_last_of(" \t\r\n") == pattern.size() - 1);
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
    {HasPathWildcard, false, "the path contains * or ?, which are literal in a path"},
    {HasLiteralWildcard, false, "the pattern contains * or ?, which are literal with match_type exact"},
    {HasBracketsInGlob, false, "the pattern contains brackets, which are literal in a glob"},
    {HasBlankAtEnd, false, "the pattern begins or ends with white space, which is part of the name"},
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

// Returns a word that may be meant by the refused one at the end of the place, otherwise all words.
std::string HintForWord(const std::string& place, const YObject& descriptor)
{
    for (const auto& [key, words] : Words) {
        if (!place.ends_with("." + std::string(key)))
            continue;
        const bool isOfPattern = key == "match_type"; // the place is only found if there is one
        const YObject& object = isOfPattern ? descriptor.FindOpt("descriptor")->AsObject() : descriptor;
        const boost::shared_ptr<YValue>& value = object.FindOpt(YString(key));
        std::string all;
        for (const std::string_view word : words) {
            if (word.empty())
                break;
            if (value != nullptr && value->IsString() && IsMisspelt(value->AsString().Bytes(), word))
                return "; did you mean '" + std::string(word) + "'?";
            all += (all.empty() ? "" : ", ") + std::string(word);
        }
        return "; the words are " + all;
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
                m_visit({true, std::string(array) + ": " + ReasonOf(*error).Bytes(), {}});
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
            std::string hint;
            if (fields != nullptr) {
                place += FindRefusedKey<YSelectionDescriptor>(*fields);
                hint = HintForWord(place, *fields);
            }
            Found(true, place, ReasonOf(*error).Bytes() + hint);
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

    static std::string HintFor(const YString& key, std::span<const std::string_view> known)
    {
        for (const std::string_view each : known) {
            if (IsMisspelt(key.Bytes(), each))
                return "; did you mean '" + std::string(each) + "'?";
        }
        return "";
    }
    static std::string HintFor(const YString& key, const YObject& known)
    {
        std::vector<std::string_view> keys;
        for (const auto& [each, unused] : known.Entries())
            keys.push_back(each.Bytes());
        return HintFor(key, keys);
    }

    template <class Known>
    void OfKeys(const YObject& object, const Known& known, const char* place = "")
    {
        for (const auto& [key, value] : object.Entries()) {
            if (!Has(known, key))
                Found(true, place, "unknown key '" + key.Bytes() + "'" + HintFor(key, known));
        }
    }

    void Found(bool isError, const std::string& place, const std::string& text) const
    {
        std::string where;
        if (!m_array.empty())
            where = std::string(m_array) + "[" + std::to_string(m_index) + "]" + place + ": ";
        m_visit({isError, where + text, m_array, m_index});
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
