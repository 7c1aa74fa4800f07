#include "agent/Cli/Command.h"

#include "agent/Cli/NodeText.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/WorkPrinter.h"
#include "agent/Repair/RepairIndex.h"
#include "agent/Repair/RepairPacks.h"
#include "agent/Repair/RepairSnapshots.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <set>

namespace Agent {

using Krt::YString;
using Repo::FileKind;
using Repo::Id;
using Repo::StoredSnapshot;

namespace {

// repair index, and the name that it had in restic before.
class IndexRepairArguments
{
public:
    void AddTo(CLI::App& command)
    {
        m_repository.AddTo(command, LockOptions::Required);
        command.add_flag("--read-all-packs", m_readsAllPacks,
                         "Read the headers of all packs, also of those that fit the index");
        command.footer(
            "The index then names exactly the packs that exist. The exit code is 3 if the header of a pack\n"
            "is damaged; the index keeps what it has of such a pack.\n\n" +
            std::string(RepositoryHelp) + "Example: kbagent repair index --repo /backup/repository");
    }

    void Run(Report& report) const
    {
        Session session(m_repository.Get(), report, Access::Exclusive, OldFormat::Accepted);
        WorkPrinter printer(report, session.GetOptions());
        const std::size_t damaged = RepairIndex(session.GetRepository(), m_readsAllPacks, printer);
        if (damaged != 0)
            report.EntryFailed("data", YString("packs whose headers are damaged: " + std::to_string(damaged) +
                                               "; 'kbagent repair packs' saves what can be read of them"));
    }

private:
    RepositoryArguments m_repository;
    bool m_readsAllPacks = false;
};

class RebuildIndexCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override
    {
        CLI::App* const command = program.add_subcommand("rebuild-index", "Another name of repair index");
        command->group(""); // not in the help
        m_arguments.AddTo(*command);
        return command;
    }
    void Run(Report& report) override { m_arguments.Run(report); }

private:
    IndexRepairArguments m_arguments;
};

class RepairCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void RepairThePacks(Report& report) const;
    void RepairTheSnapshots(Report& report) const;
    std::vector<StoredSnapshot> Choose(Session& session, WorkPrinter& printer) const;
    void RemoveUnreadable(Session& session, const Id& id, const Repo::RepositoryError& error,
                          WorkPrinter& printer) const;

    CLI::App* m_index = nullptr;
    CLI::App* m_packs = nullptr;
    IndexRepairArguments m_indexArguments;
    RepositoryArguments m_repository;
    CLI::Option* m_packIds = nullptr;
    CLI::Option* m_snapshotIds = nullptr;
    RepairOptions m_options;
};

CLI::App* RepairCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("repair", "Repair what check found to be damaged");
    command->require_subcommand(1);
    m_index =
        command->add_subcommand("index", "Rebuild the index from the packs, where it does not fit them");
    m_indexArguments.AddTo(*m_index);

    m_packs = command->add_subcommand("packs", "Replace damaged packs by what can be read of them");
    m_repository.AddTo(*m_packs, LockOptions::Required);
    m_packIds = AddPathArguments(*m_packs, "The packs, as check names them: IDs or paths", "ID")->required();
    m_packs->footer(
        "What can't be read is lost, and printed. 'kbagent repair snapshots' then removes it from the\n"
        "snapshots. Copy the packs elsewhere before, if there is any other hope for them.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent repair packs --repo /backup/repository 1a2b...");

    CLI::App* const snapshots =
        command->add_subcommand("snapshots", "Remove from snapshots what the repository has lost");
    m_repository.AddTo(*snapshots, LockOptions::Required);
    m_repository.AddSnapshotOptionsTo(*snapshots);
    snapshots->add_flag("--forget", m_options.removesOld, "Remove the snapshots that were replaced");
    snapshots->add_flag("-n,--dry-run", m_options.isDryRun, "Only print what would be done");
    m_snapshotIds =
        AddPathArguments(*snapshots, "Repair only these snapshots: first digits of IDs, or latest", "ID");
    snapshots->footer(
        "The index has to be right, so 'kbagent repair index' comes first. Files keep the content that\n"
        "is left. Directories that can't be read become empty. A snapshot file that can't be read is\n"
        "removed if its ID is given with --forget.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent repair snapshots --repo /backup/repository --forget");
    return command;
}

void RepairCommand::Run(Report& report)
{
    if (m_index->parsed())
        m_indexArguments.Run(report);
    else if (m_packs->parsed())
        RepairThePacks(report);
    else
        RepairTheSnapshots(report);
}

void RepairCommand::RepairThePacks(Report& report) const
{
    std::set<Id> packs;
    for (const std::string& text : PathsOf(m_packIds)) {
        // As check prints them, a path has the ID at its end.
        const std::optional<Id> id = Id::FromHex(text.substr(text.rfind('/') + 1));
        if (!id)
            throw UsageError("A pack has an ID of 64 hexadecimal digits: '" + text + "'");
        packs.insert(*id);
    }
    Session session(m_repository.Get(), report, Access::Exclusive);
    WorkPrinter printer(report, session.GetOptions());
    const std::size_t lost = RepairPacks(session.GetRepository(), packs, printer);
    if (lost != 0 && !session.GetOptions().isJson)
        report.Out() << "blobs that are lost: " << std::to_string(lost)
                     << "; 'kbagent repair snapshots --forget' removes them from the snapshots\n";
}

void RepairCommand::RemoveUnreadable(Session& session, const Id& id, const Repo::RepositoryError& error,
                                     WorkPrinter& printer) const
{
    const Repo::FileName file{FileKind::Snapshot, id};
    if (error.GetFailure() != Repo::Failure::Damaged || !m_options.removesOld) {
        ReportFailure(session.GetReport(), file, error);
        return;
    }
    if (!m_options.isDryRun)
        session.GetRepository().GetBackend().Remove(file);
    printer.OnNote(
        (m_options.isDryRun ? "would remove unreadable snapshot " : "removed unreadable snapshot ") +
        ShortId(id));
}

std::vector<StoredSnapshot> RepairCommand::Choose(Session& session, WorkPrinter& printer) const
{
    const std::vector<std::string> texts = PathsOf(m_snapshotIds);
    if (texts.empty())
        return ChooseSnapshots(session, {}, m_repository.GetSnapshotOptions());
    std::vector<StoredSnapshot> chosen;
    for (const std::string& text : texts) {
        if (text == "latest") {
            chosen.push_back(ChooseSnapshot(session, text, m_repository.GetSnapshotOptions()));
            continue;
        }
        const Id id = FindFile(session.GetRepository(), FileKind::Snapshot, text);
        try {
            chosen.push_back({id, session.GetRepository().LoadSnapshot(id)});
        } catch (const Repo::RepositoryError& error) {
            RemoveUnreadable(session, id, error, printer);
        }
    }
    return chosen;
}

void RepairCommand::RepairTheSnapshots(Report& report) const
{
    Session session(m_repository.Get(), report, Access::Exclusive);
    WorkPrinter printer(report, session.GetOptions());
    const std::vector<StoredSnapshot> snapshots = Choose(session, printer);
    session.GetRepository().LoadIndex();
    const std::size_t count = RepairSnapshots(session.GetRepository(), snapshots, m_options, printer);
    if (session.GetOptions().isJson)
        report.Out() << ChangeCountJson(count) << "\n";
    else if (count == 0)
        report.Out() << "no snapshots were modified\n";
    else
        report.Out() << (m_options.isDryRun ? "would modify " : "modified ") << std::to_string(count)
                     << " snapshots\n";
}

} // namespace

std::unique_ptr<ICommand> MakeRebuildIndexCommand()
{
    return std::make_unique<RebuildIndexCommand>();
}

std::unique_ptr<ICommand> MakeRepairCommand()
{
    return std::make_unique<RepairCommand>();
}

} // namespace Agent
