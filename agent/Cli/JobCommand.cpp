#include "agent/Cli/Command.h"

#include "agent/Access/TextFile.h"
#include "agent/Cli/JobText.h"
#include "agent/Cli/PatternArguments.h"
#include "agent/Job/JobFile.h"
#include "agent/Job/JobReview.h"
#include "agent/Job/PatternRule.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Walk/Roots.h"
#include "agent/Walk/RuleText.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <functional>
#include <optional>
#include <set>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionManager;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::File::YPath;

namespace {

// The path as a backup on this machine resolves it. A path that does not exist is taken as it is: the job may
// be for another machine.
YPath ResolveArgument(const std::string& path)
{
    try {
        return ResolveNamedPath(path);
    } catch (const Krt::Exception::YError&) {
        const YPath given{YString(path)};
        const auto& components = given.PopulateComponents();
        const bool hasParent = std::any_of(components.begin(), components.end(),
                                           [](const YString& each) { return each == ".."; });
        if (!path.starts_with('/') || hasParent)
            throw;
        return given;
    }
}

YSelectionPathDescriptor IncludeOfName(const YPath& path)
{
    YSelectionPathDescriptor rule(path.GetParent(),
                                  Krt::Match::ExactDescriptor(YPath::GetFileFromPath(path, "/"), true),
                                  YSelectionDescriptor::NonRecursive, YSelectionDescriptor::Include, false);
    rule.SetExplicitSelection(true);
    return rule;
}

YSelectionPathDescriptor IncludeOfEntries(const YPath& path)
{
    return {path, Krt::Match::AnyDescriptor(), YSelectionDescriptor::Recursive, YSelectionDescriptor::Include,
            false};
}

// The rules of a job that is being made, with notes about those that have no effect.
class RuleSet
{
public:
    explicit RuleSet(Report& report) : m_report(report) {}

    void Add(const YSelectionPathDescriptor& rule)
    {
        RaiseIfInterrupted();
        if (m_manager.Add(rule))
            m_added.push_back(rule);
        else
            m_report.Note(YString("already covered by other rules: " + RulePhrase(rule)));
    }
    // Notes the rules that later ones cover, which the library has dropped.
    void NoteDropped() const
    {
        for (const YSelectionPathDescriptor& rule : m_added) {
            RaiseIfInterrupted();
            if (!HasRule(m_manager, rule))
                m_report.Note(YString("now covered by other rules: " + RulePhrase(rule)));
        }
    }
    const YSelectionManager& Get() const { return m_manager; }

private:
    Report& m_report;
    YSelectionManager m_manager;
    std::vector<YSelectionPathDescriptor> m_added;
};

class JobCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    using Action = void (JobCommand::*)(Report& report) const;

    CLI::App* AddAction(CLI::App& job, const char* name, const char* description, Action action);
    void AddRuleOptions(CLI::App& action, bool isNew);

    void New(Report& report) const;
    void Add(Report& report) const;
    void Remove(Report& report) const;
    void Show(Report& report) const;
    void Check(Report& report) const;

    std::vector<std::string> Paths() const;
    void AddRules(RuleSet& rules, Report& report) const;
    void AddPattern(RuleSet& rules, const std::string& pattern, bool ignoresCase, Report& report) const;
    void AddFile(RuleSet& rules, const std::string& file, bool ignoresCase, Report& report) const;
    void Save(const RuleSet& rules, bool replaces, Report& report) const;
    void PrintReview(Report& report) const;

    std::vector<std::pair<CLI::App*, Action>> m_actions;
    std::vector<CLI::Option*> m_paths;
    std::string m_file;
    std::vector<std::string> m_directories;
    PatternArguments m_excludes;
    bool m_isSilent = false;
    bool m_isForced = false;
    bool m_isJson = false;
};

CLI::App* JobCommand::AddAction(CLI::App& job, const char* name, const char* description, Action action)
{
    CLI::App* const command = job.add_subcommand(name, description);
    command->add_option("FILE", m_file, "The job file")->required();
    command->add_flag("--json", m_isJson, "Print a JSON document");
    m_actions.emplace_back(command, action);
    return command;
}

void JobCommand::AddRuleOptions(CLI::App& action, bool isNew)
{
    m_paths.push_back(AddPathArguments(action, "Entries to include, with everything below them"));
    action
        .add_option("--directory", m_directories, "Include this directory itself, without the entries in it")
        ->type_name("PATH")
        ->allow_extra_args(false);
    m_excludes.AddTo(action, 'e', "exclude", "Exclude what this pattern of restic matches");
    action.add_flag("--silent", m_isSilent, "What the patterns exclude is neither counted nor reported");
    action.footer(
        std::string("A pattern becomes a rule if there is one with the same meaning, as for *.tmp,\n"
                    "/home/ann/cache and /home/**/cache. Otherwise the pattern, or the line of the file, is\n"
                    "reported and left out (exit code 3).\n\n") +
        "Example: kbagent job " + (isNew ? "new" : "add") + " nightly.json /home --exclude '*.tmp'");
}

CLI::App* JobCommand::Register(CLI::App& program)
{
    CLI::App* const job = program.add_subcommand("job", "Make, change, show and check job files");
    job->require_subcommand(0, 1); // an unknown word is reported separately
    CLI::App* const made = AddAction(*job, "new", "Write a job file", &JobCommand::New);
    AddRuleOptions(*made, true);
    made->add_flag("--force", m_isForced, "Replace a file that exists");
    AddRuleOptions(*AddAction(*job, "add", "Add rules to a job file", &JobCommand::Add), false);
    CLI::App* const remove = AddAction(*job, "remove", "Remove rules from a job file", &JobCommand::Remove);
    m_paths.push_back(
        AddPathArguments(*remove,
                         "Rules by the numbers that 'job show' prints; or paths, for all rules\n"
                         "in and below these directories and those that include them",
                         "RULE_OR_PATH"));
    remove->footer("Example: kbagent job remove nightly.json 3 /home/ann");
    AddAction(*job, "show", "Print the rules of a job file", &JobCommand::Show);
    CLI::App* const check = AddAction(*job, "check", "Find mistakes in a job file", &JobCommand::Check);
    check->footer(
        "An error is a mistake because of which a backup refuses the job. A warning is a rule that\n"
        "has no effect: it is redundant, contradicts another one, is never reached, or names a\n"
        "directory that does not exist. A note is a consequence that may not be known. With an error\n"
        "or a warning, the exit code is 4.");
    return job;
}

void JobCommand::Run(Report& report)
{
    for (const auto& [command, action] : m_actions) {
        if (command->parsed())
            return (this->*action)(report);
    }
    throw UsageError("job: name an action, as in 'kbagent job show FILE'; new, add, remove, show or check");
}

std::vector<std::string> JobCommand::Paths() const
{
    std::vector<std::string> paths;
    for (const CLI::Option* each : m_paths) {
        for (std::string& path : PathsOf(each))
            paths.push_back(std::move(path));
    }
    return paths;
}

void JobCommand::AddPattern(RuleSet& rules, const std::string& pattern, bool ignoresCase,
                            Report& report) const
{
    const PatternRule converted = RuleOfPattern(pattern, ignoresCase, !m_isSilent);
    if (converted.rule)
        rules.Add(*converted.rule);
    else
        report.EntryFailed(YString(pattern), YString("no rule means the same: " + converted.reason));
}

void JobCommand::AddFile(RuleSet& rules, const std::string& file, bool ignoresCase, Report& report) const
{
    VisitPatternLines(ReadListFile(file), [&](std::size_t line, const std::string& pattern) {
        const PatternRule converted = RuleOfPattern(pattern, ignoresCase, !m_isSilent);
        if (converted.rule)
            rules.Add(*converted.rule);
        else
            report.EntryFailed(YString(file + ":" + std::to_string(line)),
                               YString("no rule means the same as '" + pattern + "': " + converted.reason));
    });
}

void JobCommand::AddRules(RuleSet& rules, Report& report) const
{
    for (const std::string& argument : Paths()) {
        const YPath path = ResolveArgument(argument);
        if (path != "/")
            rules.Add(IncludeOfName(path));
        rules.Add(IncludeOfEntries(path));
    }
    for (const std::string& argument : m_directories) {
        const YPath path = ResolveArgument(argument);
        KRT_RAISE_UNLESS(path != "/", Krt::ErrorCode::InvalidArgument,
                         "No rule can include /, which every snapshot has");
        rules.Add(IncludeOfName(path));
    }
    for (const std::string& pattern : m_excludes.patterns)
        AddPattern(rules, AsTyped(pattern), false, report);
    for (const std::string& pattern : m_excludes.patternsOfAnyCase)
        AddPattern(rules, AsTyped(pattern), true, report);
    for (const std::string& file : m_excludes.files)
        AddFile(rules, file, false, report);
    for (const std::string& file : m_excludes.filesOfAnyCase)
        AddFile(rules, file, true, report);
}

void JobCommand::Save(const RuleSet& rules, bool replaces, Report& report) const
{
    rules.NoteDropped();
    SaveJob(m_file, rules.Get(), replaces);
    PrintReview(report);
}

void JobCommand::New(Report& report) const
{
    if (Paths().empty() && m_directories.empty())
        throw UsageError("job new: name at least one PATH");
    RuleSet rules(report);
    AddRules(rules, report);
    Save(rules, m_isForced, report);
}

void JobCommand::Add(Report& report) const
{
    RuleSet rules(report);
    for (const JobRule& each : LoadRules(m_file))
        rules.Add(each.rule);
    AddRules(rules, report);
    Save(rules, true, report);
}

void JobCommand::Remove(Report& report) const
{
    std::vector<JobRule> all = LoadRules(m_file);
    std::set<std::size_t> numbers;
    std::vector<YPath> paths;
    for (const std::string& argument : Paths()) {
        std::size_t number = 0;
        const char* const end = argument.data() + argument.size();
        const auto [rest, error] = std::from_chars(argument.data(), end, number);
        if (error != std::errc() || rest != end)
            paths.push_back(ResolveArgument(argument));
        else if (number == 0 || number > all.size())
            throw UsageError("The job has no rule " + argument + "; 'kbagent job show' numbers them");
        else
            numbers.insert(number);
    }
    if (numbers.empty() && paths.empty())
        throw UsageError("job remove: name rules by their numbers, or paths");
    RuleSet rules(report);
    std::size_t removed = 0;
    for (std::size_t i = 0; i < all.size(); ++i) {
        const YSelectionPathDescriptor& rule = all[i].rule;
        const bool isRemoved =
            numbers.contains(i + 1) || std::any_of(paths.begin(), paths.end(), [&rule](const YPath& path) {
                const bool includesIt = rule.IsInclude() && !rule.IsRecursive() &&
                                        rule.GetDescriptor().GetMatchType() == Krt::Match::MatchType::Exact &&
                                        rule.GetPath().Append(rule.GetDescriptor().GetPattern()) == path;
                return includesIt || rule.GetPath() == path || rule.GetPath().IsChildOf(path, true);
            });
        removed += isRemoved ? 1 : 0;
        if (!isRemoved)
            rules.Add(rule);
    }
    KRT_RAISE_UNLESS(removed != 0, Krt::ErrorCode::InvalidArgument,
                     "No rule of " << m_file.c_str() << " is in or below these paths");
    Save(rules, true, report);
}

void JobCommand::Show(Report& report) const
{
    const std::vector<JobRule> rules = LoadRules(m_file);
    report.Out() << (m_isJson ? JobJson(rules) + "\n" : JobTable(rules, OutputWidth()));
}

// After a change, what is wrong is only reported.
void JobCommand::PrintReview(Report& report) const
{
    const JobReview review = ReviewJob(ReadJobFile(m_file));
    const std::string done = "The job file " + m_file + " was written";
    if (m_isJson) {
        report.Summary(done, ReviewJson(review, m_file) + "\n");
        return;
    }
    for (const ReviewFinding& finding : review.findings)
        report.Note(YString(FindingText(finding, m_file)));
    report.Summary(done, Printable(m_file) + ": " + CountText(review.includes, "include", "includes") + ", " +
                             CountText(review.excludes, "exclude", "excludes") + "\n");
}

void JobCommand::Check(Report& report) const
{
    const JobReview review = ReviewJob(ReadJobFile(m_file));
    if (review.HasMistakes())
        report.AnswerNo();
    if (m_isJson) {
        report.Out() << ReviewJson(review, m_file) << "\n";
        return;
    }
    for (const ReviewFinding& finding : review.findings)
        report.Out() << Printable(FindingText(finding, m_file)) << "\n";
    if (!review.HasMistakes())
        report.Out() << Printable(m_file) << ": " << CountText(review.includes, "include", "includes")
                     << " and " << CountText(review.excludes, "exclude", "excludes")
                     << ", no mistakes found\n";
}

} // namespace

std::unique_ptr<ICommand> MakeJobCommand()
{
    return std::make_unique<JobCommand>();
}

} // namespace Agent
