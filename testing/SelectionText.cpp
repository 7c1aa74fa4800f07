#include "testing/SelectionText.h"

#include "Krt/JSON/YValue.h"

#include <sstream>
#include <stdexcept>

namespace Testing {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionManager;
using Backup::File::YSelectionPathDescriptor;
using Krt::Match::Descriptor;
using Krt::Match::MatchType;
using RecursionType = YSelectionDescriptor::RecursionType;
using SelectionType = YSelectionDescriptor::SelectionType;

YSelectionPathDescriptor Rule(const std::string& words)
{
    std::istringstream input(words);
    std::string type, path, word, pattern;
    input >> type >> path;
    const bool isPlaced = path == "-" || path.starts_with("/") || path.starts_with("C:");
    if (!isPlaced || (type != "include" && type != "exclude" && type != "silent"))
        throw std::invalid_argument("no rule: " + words);
    MatchType kind = MatchType::None;
    RecursionType recursion = RecursionType::NonRecursive;
    bool caseSensitive = true, isExplicit = false;
    while (input >> word) {
        if (word == "recursive")
            recursion = RecursionType::Recursive;
        else if (word == "nocase")
            caseSensitive = false;
        else if (word == "explicit")
            isExplicit = true;
        else if (word == "any")
            kind = MatchType::Any;
        else if (word.starts_with("exact=") || word.starts_with("glob=")) {
            kind = word[0] == 'e' ? MatchType::Exact : MatchType::Glob;
            pattern = word.substr(word.find('=') + 1);
        } else if (word != "none")
            throw std::invalid_argument("no rule: " + words);
    }
    YSelectionPathDescriptor rule(
        Krt::File::YPath(path == "-" ? "" : path.c_str()), Descriptor(kind, pattern.c_str(), caseSensitive),
        recursion, type == "include" ? SelectionType::Include : SelectionType::Exclude, type != "silent");
    if (isExplicit) { // a document may set the flag on rules for which the setter does not
        Krt::JSON::YObject json = rule.ToJSON();
        json.Put("explicit_selection",
                 boost::make_shared<Krt::JSON::YValue>(Krt::JSON::YValue::FromBool(true)));
        rule.FromJSON(json);
    }
    return rule;
}

std::string Words(const Krt::File::YPath& path, const YSelectionDescriptor& rule)
{
    const Descriptor& descriptor = rule.GetDescriptor();
    std::string words = rule.IsInclude() ? "include " : rule.GetReportExclude() ? "exclude " : "silent ";
    words += path.IsEmpty() ? "-" : path.Bytes();
    words += rule.IsRecursive() ? " recursive" : "";
    switch (descriptor.GetMatchType()) {
    case MatchType::None:
        words += " none";
        break;
    case MatchType::Any:
        words += " any";
        break;
    case MatchType::Exact:
        words += " exact=" + descriptor.GetPattern().Bytes();
        break;
    case MatchType::Glob:
        words += " glob=" + descriptor.GetPattern().Bytes();
        break;
    }
    words += descriptor.IsCaseSensitive() ? "" : " nocase";
    return words + (rule.GetExplicitSelection() ? " explicit" : "");
}

std::string Words(const YSelectionManager& tree)
{
    std::string words;
    tree.VisitPathsAndDescriptors(
        "/",
        [&](const Krt::File::YPath& path, const YSelectionDescriptor& rule) {
            words += (words.empty() ? "" : "; ") + Words(path, rule);
            return false;
        },
        true);
    return words;
}

YSelectionManager Tree(const std::string& rules)
{
    YSelectionManager tree;
    std::istringstream input(rules);
    for (std::string rule; std::getline(input, rule, ';');)
        tree.Add(Rule(rule));
    return tree;
}

std::string JobText(const std::string& rules)
{
    return Krt::JSON::YValue::FromObject(Tree(rules).ToJSON("/")).Stringify(true).Bytes();
}

} // namespace Testing
