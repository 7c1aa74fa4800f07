#include "agent/Cli/Command.h"

#include "agent/Backup/NewSnapshot.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/WorkPrinter.h"
#include "agent/Repair/Recovery.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

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
        m_report.RepositoryFailed("trees", Krt::YString(std::string_view(text)));
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
    static std::vector<StoredSnapshot> LoadSnapshots(Session& session, WorkPrinter& printer);
    static void CreatePlace(Session& session);
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
        "directory is named by the digits of its tree's ID. If the directory 'snapshots' of the repository\n"
        "is lost, it is created. What interrupted backups left is found, "
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
    const std::vector<StoredSnapshot> snapshots = LoadSnapshots(session, printer);
    session.LoadIndex();
    printer.OnStage("reading all trees");
    RecoveryPrinter reader(report, options);
    const std::vector<Id> roots = FindLostRoots(session.GetRepository(), snapshots, reader);
    printer.OnStage("found " + CountText(roots.size(), "directory", "directories") +
                    " that no snapshot refers to");
    std::optional<Id> id;
    if (!roots.empty())
        id = Save(session, roots);
    else if (!HasPlaceOfSnapshots(session.GetRepository()))
        CreatePlace(session);
    if (options.isJson)
        report.PrintAndLog(R"({"message_type":"summary","recovered":)" + std::to_string(roots.size()) +
                           (id ? R"(,"snapshot_id":")" + id->ToHex() + "\"}\n" : "}\n"));
    else if (id && !options.isQuiet)
        report.PrintAndLog("saved new snapshot " + ShortId(*id) + "\n");
}

std::vector<StoredSnapshot> RecoverCommand::LoadSnapshots(Session& session, WorkPrinter& printer)
{
    if (!HasPlaceOfSnapshots(session.GetRepository())) {
        printer.OnNote(
            "the directory 'snapshots' is lost, and so are the names, times and tags of snapshots");
        return {};
    }
    return session.GetRepository().LoadSnapshots(
        {}, [&printer](const Repo::FileName& file, const Repo::RepositoryError& error) {
            if (!error.IsOfFile())
                throw Repo::RepositoryError(error);
            printer.OnNote("the directories of a damaged snapshot are recovered: " + file.Path());
        });
}

// Creates the directory of snapshots of a repository without anything that a prune could remove.
void RecoverCommand::CreatePlace(Session& session)
{
    Repo::IBackend& backend = session.GetRepository().GetBackend();
    bool isEmpty = session.GetRepository().GetIndex().GetPacks().empty();
    backend.List(Repo::FileKind::Pack, [&isEmpty](const Id&, std::uint64_t) { isEmpty = false; });
    KRT_RAISE_UNLESS(
        isEmpty, Krt::ErrorCode::InvalidState,
        "There are packs, but no directory was found in them, so the directory 'snapshots' was not "
        "created; 'kbagent repair index' comes first");
    backend.Prepare();
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
