#include "agent/Cli/Command.h"

#include "agent/Cli/RepositoryArguments.h"
#include "agent/Explain/ExplanationJson.h"
#include "agent/Explain/ExplanationText.h"
#include "agent/Explain/SelectionTree.h"
#include "agent/Run/Output.h"
#include "agent/Run/Text.h"

#include "Krt/File/YDirectory.h"
#include "Krt/JSON/YValue.h"

#include <CLI/CLI.hpp>

namespace Agent {

using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

constexpr unsigned int DeepestTree = 64;

class ExplainCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    Job LoadRules(Report& report, std::string& jobText) const;
    std::optional<struct stat> FindRepository() const;
    std::string TextOf(const PathExplanation& explanation, const Job& job, RuleSources& sources,
                       const TextStyle& style, Report& report) const;
    std::string JsonOf(const PathExplanation& explanation, const Job& job, RuleSources& sources,
                       Report& report) const;
    TreeNode TreeOf(const PathExplanation& explanation, const Job& job, Report& report) const
    {
        return BuildSelectionTree(job, m_repositoryStatus, explanation.path, m_depth, report);
    }

    RepositoryArguments m_repository;
    std::string m_jobFile;
    std::vector<std::string> m_starts;
    bool m_showsTree = false;
    unsigned int m_depth = 2;
    CLI::Option* m_paths = nullptr;
    std::optional<struct stat> m_repositoryStatus;
};

CLI::App* ExplainCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("explain", "Explain why entries are in a backup, or why not");
    m_repository.AddTo(*command, LockOptions::None);
    command->add_option("--job", m_jobFile, "The job file that the backup uses")->type_name("FILE");
    command
        ->add_option("--start", m_starts,
                     "A PATH that the backup names; may be repeated. Without --job and --start, each\n"
                     "PATH is one")
        ->type_name("PATH")
        ->allow_extra_args(false);
    CLI::Option* const tree =
        command->add_flag("--tree", m_showsTree, "Print a directory as a tree, with what is left out of it");
    command->add_option("--depth", m_depth, "The levels of the tree")
        ->needs(tree)
        ->type_name("N")
        ->check(CLI::Range(0u, DeepestTree))
        ->capture_default_str();
    m_paths = AddPathArguments(*command, "Entries to explain; they need not exist")->required();
    command->footer(
        "For each PATH the answer is printed, the rule that decides with its line in the job file, the "
        "other\n"
        "rules that were considered, and what stops the walk above the PATH or at it: a rule, a mount "
        "point,\n"
        "or the repository, if it is named. Nothing is stored, and the repository is not opened. Options of\n"
        "backup that leave out entries, such as --exclude, are not considered; 'kbagent backup -n -v -v'\n"
        "prints what it stores with them, and which option leaves an entry out.\n\n"
        "The exit code is 4 if a PATH is not backed up. With --json, a document is printed for each PATH.\n\n"
        "Example: kbagent explain --job /etc/kbagent/nightly.json /home/ann/report.odt\n"
        "         kbagent explain --job /etc/kbagent/nightly.json --tree --depth 3 /home");
    return command;
}

Job ExplainCommand::LoadRules(Report& report, std::string& jobText) const
{
    const bool isOnlyPaths = m_jobFile.empty() && m_starts.empty();
    Job job = LoadJob(
        m_jobFile, isOnlyPaths ? PathsOf(m_paths) : m_starts,
        [&](const std::string& path, const YString& reason) {
            if (!isOnlyPaths) // otherwise the explanation has it
                report.EntryFailed(YString(std::string_view(path)), reason);
        },
        &jobText);
    for (const YString& warning : job.warnings)
        report.Note(warning);
    return job;
}

// The status of the directory that a backup into the repository leaves out. Only options must name one.
std::optional<struct stat> ExplainCommand::FindRepository() const
{
    const RepositoryOptions options = m_repository.Get();
    const auto names = {"REPOSITORY", "REPOSITORY_FILE"};
    const bool isOption = !options.location.empty() || !options.locationFile.empty();
    if (!isOption && !FromEnvironment(options, names, "REPOSITORY") &&
        !FromEnvironment(options, names, "REPOSITORY_FILE"))
        return std::nullopt;
    const std::optional<std::string> path = DirectoryOf(FindLocation(options));
    if (!path)
        return std::nullopt;
    try {
        return Krt::File::YDirectory::OpenFollowing(Krt::File::YPath(std::string_view(*path))).Stat();
    } catch (const Krt::Exception::YError&) {
        if (isOption)
            throw;
        return std::nullopt;
    }
}

std::string ExplainCommand::TextOf(const PathExplanation& explanation, const Job& job, RuleSources& sources,
                                   const TextStyle& style, Report& report) const
{
    if (m_showsTree && explanation.kind == EntryKind::Directory) {
        const TreeNode tree = TreeOf(explanation, job, report);
        if (tree.outcome.isEntered || !tree.entries.empty())
            return TreeText(tree, job, sources, style);
    }
    return ExplanationText(explanation, sources, style);
}

std::string ExplainCommand::JsonOf(const PathExplanation& explanation, const Job& job, RuleSources& sources,
                                   Report& report) const
{
    YObject document = ExplanationObject(explanation, sources);
    if (m_showsTree && explanation.kind == EntryKind::Directory)
        document.Set<YObject>("tree", TreeObject(TreeOf(explanation, job, report), job, sources));
    return PrintableJson(YValue::FromObject(std::move(document)).Stringify(true).Bytes()) + "\n";
}

void ExplainCommand::Run(Report& report)
{
    RequireSwitches({"walkIntoUnknownMountPoints"});
    const bool isJson = m_repository.IsJson();
    if (isJson)
        report.UseJson();
    if (m_repository.Get().isQuiet)
        report.BeQuiet();
    m_repositoryStatus = FindRepository();
    std::string jobText;
    const Job job = LoadRules(report, jobText);
    RuleSources sources =
        m_jobFile.empty() ? RuleSources() : RuleSources(m_jobFile, std::exchange(jobText, {}));
    const TextStyle style{UsesColour(), OutputWidth()};
    bool isFirst = true;
    for (const PathExplanation& explanation : Explainer(job, m_repositoryStatus).Explain(PathsOf(m_paths))) {
        const std::string text =
            isJson ? JsonOf(explanation, job, sources, report)
                   : (isFirst ? "" : "\n") + TextOf(explanation, job, sources, style, report);
        report.Out() << text; // which first erases the progress of making it
        isFirst = false;
        if (!explanation.IsStored())
            report.AnswerNo();
    }
}

} // namespace

std::unique_ptr<ICommand> MakeExplainCommand()
{
    return std::make_unique<ExplainCommand>();
}

} // namespace Agent
