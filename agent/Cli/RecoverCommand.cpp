#include "agent/Cli/Command.h"

#include "agent/Backup/NewSnapshot.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/WorkPrinter.h"
#include "agent/Repair/Recovery.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <optional>

namespace Agent {

using Repo::Id;
using Repo::StoredSnapshot;

namespace {

// The notes are trees that can't be read, so that entries are missing from the snapshot.
class RecoveryPrinter : public WorkPrinter
{
public:
    RecoveryPrinter(Report& report, const RepositoryOptions& options)
        : WorkPrinter(report, options), m_report(report)
    {}
    void OnNote(const std::string& text) override
    {
        m_report.RepositoryFailed("data", Krt::YString(std::string_view(text)));
    }

private:
    Report& m_report;
};

class RecoverCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    Id Save(Session& session, const std::vector<Id>& roots) const;

    RepositoryArguments m_repository;
};

CLI::App* RecoverCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("recover", "Make a snapshot of all directories that no snapshot refers to");
    m_repository.AddTo(*command, LockOptions::Required);
    command->footer(
        "It is for snapshots that were removed by mistake, or whose files are lost, as long as no prune has\n"
        "removed their contents. The new snapshot has the tag recovered and the path /recover. In it, each\n"
        "directory is named by the digits of its tree's ID. What interrupted backups left is found, "
        "too,\nand snapshots that were removed on purpose come back as well. The exit code is 3 if a "
        "directory, or a\n"
        "part of it, can't be read; 'kbagent repair snapshots --forget' then removes that part.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent recover --repo /backup/repository");
    return command;
}

void RecoverCommand::Run(Report& report)
{
    Session session(m_repository.Get(), report, Access::Exclusive);
    const RepositoryOptions& options = session.GetOptions();
    report.GoOnWithoutOutput();
    WorkPrinter printer(report, options);
    const std::vector<StoredSnapshot> snapshots = session.GetRepository().LoadSnapshots(
        {}, [&printer](const Repo::FileName& file, const Repo::RepositoryError& error) {
            if (!error.IsOfFile())
                throw Repo::RepositoryError(error);
            printer.OnNote("the directories of a damaged snapshot are recovered: " + file.Path());
        });
    session.LoadIndex();
    printer.OnStage("reading all trees");
    RecoveryPrinter reader(report, options);
    const std::vector<Id> roots = FindLostRoots(session.GetRepository(), snapshots, reader);
    printer.OnStage("found " + CountText(roots.size(), "directory", "directories") +
                    " that no snapshot refers to");
    std::optional<Id> id;
    if (!roots.empty())
        id = Save(session, roots);
    if (options.isJson)
        report.PrintAndLog(R"({"message_type":"summary","recovered":)" + std::to_string(roots.size()) +
                           (id ? R"(,"snapshot_id":")" + id->ToHex() + "\"}\n" : "}\n"));
    else if (id && !options.isQuiet)
        report.PrintAndLog("saved new snapshot " + ShortId(*id) + "\n");
}

Id RecoverCommand::Save(Session& session, const std::vector<Id>& roots) const
{
    SnapshotSettings settings;
    settings.tags = {"recovered"};
    SnapshotOutcome outcome;
    outcome.begin = Repo::Timestamp::Now();
    Repo::Snapshot snapshot = MakeSnapshot(settings, outcome);
    snapshot.paths = {"/recover"};
    return SaveRecovered(session.GetRepository(), roots, std::move(snapshot));
}

} // namespace

std::unique_ptr<ICommand> MakeRecoverCommand()
{
    return std::make_unique<RecoverCommand>();
}

} // namespace Agent
