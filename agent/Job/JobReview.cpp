#include "agent/Job/JobReview.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Walk/JobCheck.h"
#include "agent/Walk/Roots.h"

#include "Backup/File/YSelectionExplanation.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>
#include <utility>

#include <sys/stat.h>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionExplanation;
using Backup::File::YSelectionManager;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::File::YPath;
using Krt::JSON::YValue;
using Krt::Match::MatchType;
using Level = ReviewFinding::Level;

namespace {

// Each rule without an effect is compared with all others, to find the one that covers it.
constexpr std::size_t MostComparisons = 1 << 20;
constexpr std::size_t MostDirectories = 3;

// The exclude of the same names. The glob * becomes "any", since the library never compares globs.
YSelectionPathDescriptor AsExclude(const YSelectionPathDescriptor& rule)
{
    return {rule.GetPath(), rule.CoversAllNames() ? Krt::Match::AnyDescriptor() : rule.GetDescriptor(),
            rule.GetRecursionType(), YSelectionDescriptor::Exclude, rule.GetReportExclude()};
}

// Returns true if one rule, by itself, makes the other one redundant. Whether they include or exclude is not
// considered.
bool Covers(const YSelectionPathDescriptor& rule, const YSelectionPathDescriptor& other)
{
    YSelectionManager one;
    one.Add(AsExclude(rule));
    return one.IsDescriptorRedundant(AsExclude(other));
}

YSelectionManager::Components ComponentsOf(const YSelectionPathDescriptor& rule)
{
    return rule.GetPath().PopulateComponents();
}

bool NamesOneEntry(const YSelectionPathDescriptor& rule)
{
    return !rule.IsRecursive() && rule.GetDescriptor().GetMatchType() == MatchType::Exact;
}

std::string Shown(const YPath& path)
{
    return path.IsEmpty() ? "/" : path.Bytes();
}

// One that can't be examined may be one.
bool MayBeDirectory(const YPath& path)
{
    struct stat status = {};
    return lstat(path.CStr(), &status) == 0 ? S_ISDIR(status.st_mode) : errno != ENOENT && errno != ENOTDIR;
}

ReviewFinding NoteOn(const std::set<YPath>& paths, const std::string& fact)
{
    std::string text;
    std::size_t count = 0;
    for (const YPath& path : paths) {
        if (++count <= MostDirectories)
            text += (text.empty() ? "" : ", ") + Shown(path);
    }
    if (count > MostDirectories)
        text += " and " + std::to_string(count - MostDirectories) + " further directories";
    return {Level::Note, 0, "", text + fact};
}

// The directories that are stored with an entry in them, but not by themselves. That of a rule which names
// one entry is merely on the way to it.
std::set<YPath> DirectoriesNotIncluded(const std::vector<JobRule>& rules, const YSelectionManager& selection)
{
    std::set<YPath> directories;
    for (const JobRule& each : rules) {
        const YPath& directory = each.rule.GetPath();
        if (each.rule.IsInclude() && !NamesOneEntry(each.rule) && !ComponentsOf(each.rule).empty() &&
            MayBeDirectory(directory) &&
            selection.GetPathSelectionType(directory) == YSelectionDescriptor::NotSelectedDoRecurse)
            directories.insert(directory);
    }
    return directories;
}

std::set<YPath> PathsNotExamined(const std::vector<JobRule>& rules)
{
    std::set<YPath> paths;
    for (const JobRule& each : rules) {
        struct stat status = {};
        if (each.rule.IsInclude() && lstat(each.rule.GetPath().CStr(), &status) != 0 && errno == EACCES)
            paths.insert(each.rule.GetPath());
    }
    return paths;
}

void AddNotes(const std::vector<JobRule>& rules, const YSelectionManager& selection,
              std::vector<ReviewFinding>& findings)
{
    if (const auto directories = DirectoriesNotIncluded(rules, selection); !directories.empty())
        findings.push_back(
            NoteOn(directories, std::string(directories.size() == 1 ? " is" : " are") +
                                    " stored only with an entry inside, since no rule includes the directory "
                                    "itself; 'kbagent job add FILE --directory PATH' includes it"));
    if (const auto paths = PathsNotExamined(rules); !paths.empty())
        findings.push_back(NoteOn(paths, " can't be examined by this user, so mistakes there are not found"));
}

// Finds rules that have no effect, or another one than was probably meant.
class RuleReview
{
public:
    RuleReview(const std::vector<JobRule>& rules, std::vector<ReviewFinding>& findings)
        : m_rules(rules), m_findings(findings)
    {}

    // The library adds the rules in the order of the file.
    void Run()
    {
        for (const JobRule& rule : m_rules) {
            m_isAdded.push_back(m_job.rules.Add(rule.rule));
            if (rule.rule.IsExclude())
                m_excludes.Add(AsExclude(rule.rule));
        }
        m_job.roots = m_job.rules.GetIncludeTops(YPath());
        FindPathsWithoutEntries();
        for (std::size_t i = 0; i < m_rules.size(); ++i) {
            if (!m_isAdded[i] || !HasRule(m_job.rules, m_rules[i].rule))
                FoundRedundant(i);
            else if (m_rules[i].rule.IsInclude())
                OfInclude(i);
            else
                OfExclude(i);
        }
        if (m_job.roots.empty())
            m_findings.push_back({Level::Warning, 0, "", "the job includes nothing that a walk reaches"});
        AddNotes(m_rules, m_job.rules, m_findings);
    }

private:
    // Returns a text such as "excludes[1] (line 20)"; otherwise "another rule".
    template <class Predicate>
    std::string FindRule(std::size_t except, const Predicate& isFound)
    {
        for (std::size_t i = 0; i < m_rules.size() && m_comparisons < MostComparisons; ++i, ++m_comparisons) {
            if (i != except && isFound(m_rules[i].rule))
                return m_rules[i].Label() + " (line " + std::to_string(m_rules[i].line) + ")";
        }
        return "another rule";
    }

    void FoundRedundant(std::size_t index)
    {
        const YSelectionPathDescriptor& rule = m_rules[index].rule;
        Warn(index, "redundant, because " + FindRule(index, [&](const YSelectionPathDescriptor& each) {
                        return each.GetSelectionType() == rule.GetSelectionType() && Covers(each, rule);
                    }) + " covers it");
    }

    void OfInclude(std::size_t index)
    {
        const YSelectionPathDescriptor& rule = m_rules[index].rule;
        bool isReported = false;
        if (!rule.GetExplicitSelection() && m_job.rules.PathMatchesExclude(ComponentsOf(rule), isReported)) {
            Warn(index, "selects nothing, because everything in " + Shown(rule.GetPath()) +
                            " is excluded by " + RuleThatExcludes(rule.GetPath()));
            return;
        }
        if (const std::optional<YPath> barrier = FindBarrier(rule.GetPath())) {
            Warn(index, "never reached: the walk does not enter " + Shown(*barrier) + ", because of " +
                            RuleThatExcludes(*barrier));
            return;
        }
        if (rule.GetExplicitSelection() || !m_excludes.IsDescriptorRedundant(AsExclude(rule)))
            return;
        Warn(index, "contradicts " + FindRule(index, [&](const YSelectionPathDescriptor& each) {
                        return each.IsExclude() && Covers(each, rule);
                    }) + ", which excludes all that it includes; excludes take precedence");
    }

    void OfExclude(std::size_t index)
    {
        const YSelectionPathDescriptor& rule = m_rules[index].rule;
        const auto path = ComponentsOf(rule);
        if (!m_job.roots.empty() && !path.empty() && !m_job.rules.AnyIncludesApplyBelowPath(path)) {
            Warn(index, "excludes nothing, because nothing in " + Shown(rule.GetPath()) + " is included");
            return;
        }
        if (const std::string include = ExplicitIncludeOf(rule); !include.empty()) {
            Warn(index, "excludes nothing, because " + include + " includes that entry explicitly");
            return;
        }
        const YPath named =
            NamesOneEntry(rule) ? rule.GetPath().Append(rule.GetDescriptor().GetPattern()) : rule.GetPath();
        struct stat status = {};
        if (named.IsEmpty() || lstat(named.CStr(), &status) == 0)
            return;
        if (const std::string similar = FindSimilarPath(named); !similar.empty())
            Warn(index,
                 "excludes nothing now: there is no " + Shown(named) + "; did you mean " + similar + "?");
    }

    // Returns the rule that keeps the only entry of an exclude; "" if there is none.
    std::string ExplicitIncludeOf(const YSelectionPathDescriptor& exclude)
    {
        const Krt::Match::Descriptor& name = exclude.GetDescriptor();
        const auto [node, isOwn] = m_job.rules.FindNode(exclude.GetPath(), false);
        if (!NamesOneEntry(exclude) || !name.IsCaseSensitive() || !isOwn ||
            !node->MatchesExplicitExactNonRecursiveInclude(name.GetPattern()))
            return "";
        return FindRule(m_rules.size(), [&](const YSelectionPathDescriptor& each) {
            return each.IsInclude() && each.GetExplicitSelection() && NamesOneEntry(each) &&
                   each.GetDescriptor() == name && ComponentsOf(each) == ComponentsOf(exclude);
        });
    }

    // Returns the directory on the path, or the path itself, that the walk to it does not enter.
    std::optional<YPath> FindBarrier(const YPath& path) const
    {
        std::vector<YPath> onPath;
        for (YPath each = path; each != "/" && !each.IsEmpty(); each = each.GetParent()) {
            onPath.push_back(each);
            if (m_job.roots.contains(each))
                break;
        }
        for (auto each = onPath.rbegin(); each != onPath.rend(); ++each) {
            const auto answer = m_job.rules.GetPathSelectionType(*each);
            if (answer != YSelectionDescriptor::Include &&
                answer != YSelectionDescriptor::NotSelectedDoRecurse)
                return *each;
        }
        return std::nullopt;
    }

    std::string RuleThatExcludes(const YPath& path)
    {
        using Effect = YSelectionExplanation::Effect;
        const YSelectionExplanation explanation = m_job.rules.Explain(path);
        for (const YSelectionExplanation::Rule& each : explanation.rules) {
            if (each.effect != Effect::Excludes && each.effect != Effect::ExcludesEntries)
                continue;
            const auto isSame = [&each](const YSelectionPathDescriptor& rule) {
                return static_cast<const YSelectionDescriptor&>(rule) == each.rule &&
                       ComponentsOf(rule) == ComponentsOf(each.rule);
            };
            return FindRule(m_rules.size(), isSame);
        }
        return "the rules above it";
    }

    void FindPathsWithoutEntries()
    {
        std::set<std::pair<YPath, std::string>> found;
        VisitPathsWithoutEntries(m_job, Visited::All, [&](const YPath& path, const std::string& text) {
            if (!found.emplace(path, text).second)
                return;
            const auto rule = std::find_if(m_rules.begin(), m_rules.end(), [&](const JobRule& each) {
                return each.rule.IsInclude() && ComponentsOf(each.rule) == path.PopulateComponents();
            });
            if (rule != m_rules.end())
                Warn(static_cast<std::size_t>(rule - m_rules.begin()), text);
        });
    }

    void Warn(std::size_t index, const std::string& text)
    {
        m_findings.push_back({Level::Warning, m_rules[index].line, m_rules[index].Label(), text});
    }

    const std::vector<JobRule>& m_rules;
    std::vector<ReviewFinding>& m_findings;
    Job m_job;                    // as a backup loads it
    YSelectionManager m_excludes; // see AsExclude
    std::vector<bool> m_isAdded;
    std::size_t m_comparisons = 0;
};

} // namespace

bool JobReview::HasMistakes() const
{
    return std::any_of(findings.begin(), findings.end(),
                       [](const ReviewFinding& finding) { return finding.level != Level::Note; });
}

JobReview ReviewJob(const std::string& text)
{
    const EndingOnInterrupts ending; // the rules of a large job take some time
    JobReview review;
    bool hasErrors = false;
    const RuleLines lines(text);
    std::vector<JobRule> rules;
    try {
        const auto job = YValue::Parse(text, YValue::DuplicateKeys::Refuse);
        CheckJob(job->AsObject(), [&](const JobFinding& finding) {
            const std::size_t line = finding.array.empty() ? 0 : lines.Of(finding.array, finding.index);
            review.findings.push_back(
                {finding.isError ? Level::Error : Level::Warning, line, "", finding.text});
            hasErrors = hasErrors || finding.isError;
        });
        if (!hasErrors) {
            rules = RulesOf(job->AsObject(), lines);
            RuleReview(rules, review.findings).Run();
        }
    } catch (const Krt::Exception::YError& error) {
        review.findings.push_back({Level::Error, 0, "", ReasonOf(error).Bytes()});
        hasErrors = true;
    }
    if (hasErrors) {
        std::erase_if(review.findings, [](const ReviewFinding& each) { return each.level != Level::Error; });
        return review;
    }
    for (const JobRule& rule : rules)
        ++(rule.rule.IsInclude() ? review.includes : review.excludes);
    std::stable_sort(review.findings.begin(), review.findings.end(),
                     [](const ReviewFinding& a, const ReviewFinding& b) {
                         return std::pair(a.level, a.line) < std::pair(b.level, b.line);
                     });
    return review;
}

} // namespace Agent
