#include "agent/Cli/Command.h"

#include "agent/Cli/CheckObserver.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Inspect/RepositoryCheck.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

std::string SummaryJson(const CheckSummary& summary)
{
    std::string json;
    Repo::JsonWriter writer(json);
    writer.BeginObject();
    writer.Key("message_type");
    writer.String("summary");
    writer.Key("num_errors");
    writer.Number(summary.errors);
    writer.Key("broken_packs");
    if (summary.brokenPacks.empty())
        writer.Null();
    else {
        writer.BeginArray();
        for (const Repo::Id& id : summary.brokenPacks)
            writer.WriteId(id);
        writer.EndArray();
    }
    writer.Key("suggest_repair_index");
    writer.Bool(summary.isIndexWrong);
    writer.Key("suggest_prune");
    writer.Bool(summary.hasUnusedPacks);
    writer.EndObject();
    return json;
}

void Advise(const CheckSummary& summary, CheckObserver& observer)
{
    if (summary.isDenied)
        return observer.Advise("this user may not read some files of the repository; repeat the check as "
                               "their owner or as root");
    if (summary.isUnavailable)
        return observer.Advise(
            "some files of the repository could not be read, which does not mean that they "
            "are damaged; repeat the check before anything is repaired");
    const auto advise = [&observer](const char* command, const std::vector<Repo::Id>& ids) {
        std::string text = command;
        for (const Repo::Id& id : ids)
            text += " " + id.ToHex();
        if (!ids.empty())
            observer.Advise(text);
    };
    if (summary.hasReadErrors)
        observer.Advise(
            "the disk can't read some files, which may pass; look at its cables and its health, "
            "copy the repository to another disk, and check the copy before anything is repaired");
    if (summary.isIndexWrong)
        observer.Advise("the index should be rebuilt from the packs: kbagent repair index");
    advise("what can be read of broken packs should be saved: kbagent repair packs", summary.damagedPacks);
    advise("packs that can't be read there either should be replaced by what can be read of them: kbagent "
           "repair packs --remove-unreadable",
           summary.unreadablePacks);
    if (summary.unknownPacks != 0)
        observer.Advise("an older copy of the directory 'index' would make packs readable that no index "
                        "refers to and whose headers are damaged; a prune removes them");
    if (summary.lacksSnapshots)
        observer.Advise("the directory 'snapshots' should be put back; if it is lost, the directories of its "
                        "snapshots should be saved as a new one: kbagent recover");
    if (summary.hasDamage) {
        const bool isFirst =
            !summary.isIndexWrong && summary.damagedPacks.empty() && summary.unreadablePacks.empty();
        observer.Advise(std::string(isFirst ? "" : "after that, ") +
                        "the same files should be backed up again, which stores what they still have of what "
                        "was lost (exit code 0 or 3), and the repository be checked again");
    }
    if (!summary.badSnapshots.empty())
        observer.Advise("the directories of damaged snapshots, unless a prune has removed them, should be "
                        "saved as a new one: kbagent recover");
    advise("damaged files of snapshots should be removed: kbagent repair snapshots --forget",
           summary.badSnapshots);
    if (summary.losesDirectories)
        observer.Advise(
            "if directories are lost even then, what is left of those below them should be saved as "
            "a new snapshot: kbagent recover");
    if (summary.hasDamage)
        observer.Advise("only what is lost even then should be removed from the snapshots: kbagent repair "
                        "snapshots --forget");
}

class CheckCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RepositoryArguments m_repository;
    bool m_readData = false;
    std::string m_subset;
};

CLI::App* CheckCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("check", "Verify that all snapshots of a repository can be restored");
    m_repository.AddTo(*command);
    command->add_flag("--read-data", m_readData, "Read and verify the content of all packs, too");
    command
        ->add_option("--read-data-subset", m_subset,
                     "Read a part of the packs: part n of t as n/t; or some of them, chosen at random, by a\n"
                     "percentage as in 2.5%, or by a size as in 500M")
        ->type_name("SUBSET");
    command->footer(
        "The check verifies all key files, snapshots, index files and trees, that each blob is in the\n"
        "index, and that each pack has the size that the index expects. It goes on after damage. At the end\n"
        "it names the entries of snapshots that the damage touches. Packs that no index refers to, and\n"
        "entries that the index has twice, are hints. The exit code is 1 if there are errors.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent check --repo /backup/repository --read-data");
    return command;
}

void CheckCommand::Run(Report& report)
{
    if (m_readData && !m_subset.empty())
        throw UsageError("--read-data and --read-data-subset exclude each other");
    std::optional<PackSubset> subset;
    if (m_readData)
        subset = PackSubset();
    else if (!m_subset.empty())
        subset = PackSubset::Parse(m_subset);
    RepositoryOptions options = m_repository.Get();
    options.hasNoCache = true; // the repository itself is to be verified
    Session session(options, report, Access::Read, OldFormat::Refused, Settling::Later);
    CheckObserver observer(report, options);
    const CheckSummary summary =
        CheckRepository(session.GetRepository(), subset, observer, [&session] { session.Settle(); });
    if (!m_repository.IsJson())
        Advise(summary, observer);
    if (m_repository.IsJson())
        report.PrintAndLog(SummaryJson(summary) + "\n");
    else if (summary.errors == 0 && options.isQuiet)
        report.LogSummary("no errors were found\n");
    else if (summary.errors == 0)
        report.PrintAndLog("no errors were found\n");
    KRT_RAISE_UNLESS(summary.errors == 0, Krt::ErrorCode::InvalidState,
                     "The repository has errors: " << static_cast<unsigned long long>(summary.errors));
}

} // namespace

std::unique_ptr<ICommand> MakeCheckCommand()
{
    return std::make_unique<CheckCommand>();
}

} // namespace Agent
