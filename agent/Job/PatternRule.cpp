#include "agent/Job/PatternRule.h"

#include "agent/Repository/NameText.h"
#include "agent/Repository/Utf8.h"
#include "agent/Run/Text.h"
#include "agent/Walk/Patterns.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::Match::Descriptor;
using Krt::Match::MatchType;

namespace {

constexpr const char* AnyNames = "**";

// A pattern of one name as a rule has it.
struct Names
{
    std::string text;
    bool hasWildcard = false;
    bool hasLiteralWildcard = false; // such as "\*"
    bool hasSet = false;             // such as "[a-z]"
};

Names NamesOf(const std::string& pattern)
{
    Names names;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        const bool isEscaped = pattern[i] == '\\' && i + 1 < pattern.size();
        if (isEscaped)
            ++i;
        const bool isWildcard = pattern[i] == '*' || pattern[i] == '?';
        names.hasWildcard = names.hasWildcard || (isWildcard && !isEscaped);
        names.hasLiteralWildcard = names.hasLiteralWildcard || (isWildcard && isEscaped);
        names.hasSet = names.hasSet || (pattern[i] == '[' && !isEscaped);
        names.text += pattern[i];
    }
    return names;
}

bool IsAscii(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](unsigned char byte) { return byte < 0x80; });
}

bool HasLetter(const std::string& text)
{
    return std::any_of(text.begin(), text.end(), [](unsigned char byte) { return std::isalpha(byte) != 0; });
}

std::string ReasonAgainst(const Names& names)
{
    if (names.hasSet)
        return "rules have no sets of characters";
    if (names.hasWildcard && names.hasLiteralWildcard)
        return "in the glob of a rule, * and ? can't be literal";
    if (names.text == "..")
        return "no name is ..";
    return "";
}

// For a relative pattern that begins with a name in the working directory, which was probably meant.
std::string HintFor(const Pattern& pattern, const std::string& text)
{
    const std::string name = NamesOf(pattern.names.front()).text;
    std::error_code error;
    const std::filesystem::path here = std::filesystem::current_path(error);
    if (error || here.native().find_first_of("*?[\\") != std::string::npos ||
        !std::filesystem::exists(std::filesystem::symlink_status(here / name, error)))
        return "";
    return "; did you mean " + (here / text).lexically_normal().native() + "?";
}

PatternRule Refused(const std::string& reason)
{
    return {std::nullopt, reason};
}

} // namespace

PatternRule RuleOfPattern(const std::string& text, bool ignoresCase, bool isReported)
{
    Pattern pattern;
    try {
        pattern = Pattern::Parse(text);
    } catch (const Krt::Exception::YError& error) {
        return Refused(ReasonOf(error).Bytes());
    }
    if (pattern.isNegated)
        return Refused("rules are not tried in order, so what another rule excludes stays excluded");
    if (pattern.names.empty())
        return Refused("it matches everything");
    if (!Repo::IsUtf8(text))
        return Refused("a job file can contain UTF-8 only");
    if (ignoresCase && !IsAscii(text))
        return Refused("rules ignore the case of the letters a to z only");

    const Names names = NamesOf(pattern.names.back());
    if (const std::string reason = ReasonAgainst(names); !reason.empty())
        return Refused(reason);
    if (names.text == AnyNames)
        return Refused("a rule can't have ** as the name");
    pattern.names.pop_back();

    bool isRecursive = !pattern.isFromRoot;
    while (!pattern.names.empty() && pattern.names.back() == AnyNames) {
        isRecursive = true;
        pattern.names.pop_back();
    }
    if (!pattern.isFromRoot && !pattern.names.empty())
        return Refused("rules match single names, not a name together with its directory" +
                       HintFor(pattern, text));
    std::string path;
    for (const std::string& name : pattern.names) {
        const Names directory = NamesOf(name);
        if (directory.hasWildcard || directory.hasSet)
            return Refused("the directory of a rule has no wildcards");
        if (ignoresCase && HasLetter(directory.text))
            return Refused("the directory of a rule is always compared with upper and lower case");
        if (const std::string reason = ReasonAgainst(directory); !reason.empty())
            return Refused(reason);
        path += "/" + directory.text;
    }
    const Descriptor descriptor(names.hasWildcard ? MatchType::Glob : MatchType::Exact, YString(names.text),
                                !ignoresCase);
    return {YSelectionPathDescriptor(Krt::File::YPath(YString(path.empty() ? "/" : path)), descriptor,
                                     isRecursive ? YSelectionDescriptor::Recursive
                                                 : YSelectionDescriptor::NonRecursive,
                                     YSelectionDescriptor::Exclude, isReported),
            ""};
}

} // namespace Agent
