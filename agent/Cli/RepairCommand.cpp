#include "agent/Cli/Command.h"

#include "agent/Access/Workers.h"
#include "agent/Cli/NodeText.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/WorkPrinter.h"
#include "agent/Repair/RepairIndex.h"
#include "agent/Repair/RepairPacks.h"
#include "agent/Repair/RepairSnapshots.h"
#include "agent/Run/Interrupt.h"
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

// Reports the IDs that neither a pack nor the index has, and removes them. Raises InvalidArgument if no
// others are left.
void DropUnknown(std::set<Id>& packs, Session& session)
{
    Repo::Repository& repository = session.GetRepository();
    std::set<Id> unknown = packs;
    repository.GetBackend().List(FileKind::Pack, [&](const Id& id, std::uint64_t) { unknown.erase(id); });
    if (unknown.empty())
        return;
    repository.LoadIndex({}, WorkerCount(), RaiseIfInterrupted);
    std::erase_if(unknown, [&](const Id& id) { return repository.GetIndex().FindPack(id).has_value(); });
    KRT_RAISE_UNLESS(unknown.size() != packs.size(), Krt::ErrorCode::InvalidArgument,
                     "There is no pack " << packs.begin()->ToHex().c_str());
    for (const Id& id : unknown) {
        session.GetReport().EntryFailed(YString(id.ToHex()), "There is no such pack");
        packs.erase(id);
    }
}

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
            "can't be read; the index keeps what it has of such a pack. It is also 3 if packs are missing\n"
            "with blobs that no other pack has. If no pack exists at all, nothing is changed.\n\n" +
            std::string(RepositoryHelp) + "Example: kbagent repair index --repo /backup/repository");
    }

    void Run(Report& report) const
    {
        Session session(m_repository.Get(), report, Access::Exclusive, OldFormat::Accepted);
        report.GoOnWithoutOutput();
        WorkPrinter printer(report, session.GetOptions());
        const IndexRepairOutcome outcome = RepairIndex(session.GetRepository(), m_readsAllPacks, printer);
        if (session.GetOptions().isJson)
            report.PrintAndLog(R"({"message_type":"summary","damaged_packs":)" +
                               std::to_string(outcome.damaged + outcome.unknown) +
                               ",\"missing_packs\":" + std::to_string(outcome.missing) +
                               ",\"lost_blobs\":" + std::to_string(outcome.lost) + "}\n");
        ReportFailures(report, outcome);
    }

private:
    static void ReportFailures(Report& report, const IndexRepairOutcome& outcome)
    {
        const auto fail = [&report](const char* part, const char* what, std::size_t count,
                                    const char* advice) {
            if (count != 0)
                report.EntryFailed(part, YString(what + std::to_string(count) + advice));
        };
        for (const auto& [file, error] : outcome.left)
            ReportFailure(report, file, error, "it was replaced, but can't be removed: ");
        fail("packs", "those whose headers can't be read: ", outcome.damaged,
             "; the index has them; 'kbagent repair packs' replaces them by what can be read of them");
        fail("packs", "those that are in no index, and whose headers can't be read: ", outcome.unknown,
             "; they are kept, until a prune; an older copy of the directory 'index' would make them "
             "readable, or another attempt if the disk can't read them");
        fail("index", "damaged files that are kept, since they may have these packs: ", outcome.keptFiles,
             "; if there is no older copy of them, move them elsewhere and repeat the command");
        fail("packs", "blobs of missing packs that no other pack has: ", outcome.lost,
             "; 'kbagent check' names what needs them");
    }

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
    using Unreadable = std::vector<std::pair<Id, Repo::RepositoryError>>;
    std::vector<StoredSnapshot> Choose(Session& session, Unreadable& unreadable) const;
    void RemoveUnreadable(Session& session, const Id& id, const Repo::RepositoryError& error,
                          WorkPrinter& printer) const;

    CLI::App* m_index = nullptr;
    CLI::App* m_packs = nullptr;
    CLI::App* m_snapshots = nullptr;
    IndexRepairArguments m_indexArguments;
    RepositoryArguments m_repository;
    CLI::Option* m_packIds = nullptr;
    bool m_removesUnreadable = false;
    CLI::Option* m_snapshotIds = nullptr;
    RepairOptions m_options;
};

CLI::App* RepairCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("repair", "Repair what check found to be damaged");
    command->require_subcommand(0, 1); // an unknown word is reported separately
    m_index =
        command->add_subcommand("index", "Rebuild the index from the packs, where it does not fit them");
    m_indexArguments.AddTo(*m_index);

    m_packs = command->add_subcommand("packs", "Replace damaged packs by what can be read of them");
    m_repository.AddTo(*m_packs, LockOptions::Required);
    m_packIds = AddPathArguments(*m_packs, "The packs, as check names them: IDs or paths", "ID")->required();
    m_packs->add_flag("--remove-unreadable", m_removesUnreadable,
                      "Also remove packs with parts that the disk can't read in several attempts");
    m_packs->footer(
        "What is damaged is lost, and printed. A new backup of the same files stores again what they still\n"
        "have of it. 'kbagent repair snapshots' then removes the rest from the snapshots. Copy the packs\n"
        "elsewhere before, if there is any other hope for them. A pack that the disk can't read is kept,\n"
        "since a later attempt may succeed. So is a pack if neither the index nor its header says what is\n"
        "in it. The exit code is 3 if anything is lost or a pack is kept.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent repair packs --repo /backup/repository 1a2b...");

    m_snapshots = command->add_subcommand("snapshots", "Remove from snapshots what the repository has lost");
    m_repository.AddTo(*m_snapshots, LockOptions::Required);
    m_repository.AddSnapshotOptionsTo(*m_snapshots);
    m_snapshots->add_flag("--forget", m_options.removesOld, "Remove the snapshots that were replaced");
    m_snapshots->add_flag("-n,--dry-run", m_options.isDryRun, "Only print what would be done");
    m_snapshotIds =
        AddPathArguments(*m_snapshots, "Repair only these snapshots: first digits of IDs, or latest", "ID");
    m_snapshots->footer(
        "The index has to fit the packs, so 'kbagent repair index' comes first. Then a new backup of the\n"
        "same files may store again what is lost. Files keep the content that is left. Directories whose\n"
        "trees are damaged or missing keep the entries before the damage, if any; before the next prune,\n"
        "'kbagent recover' finds what was below them. A snapshot file that can't be read is removed if its "
        "ID is\n"
        "given with --forget.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent repair snapshots --repo /backup/repository --forget");
    return command;
}

void RepairCommand::Run(Report& report)
{
    if (m_index->parsed())
        m_indexArguments.Run(report);
    else if (m_packs->parsed())
        RepairThePacks(report);
    else if (m_snapshots->parsed())
        RepairTheSnapshots(report);
    else
        throw UsageError("repair: name an action, as in 'kbagent repair index'; index, packs or snapshots");
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
    report.GoOnWithoutOutput();
    WorkPrinter printer(report, session.GetOptions());
    DropUnknown(packs, session);
    const auto [lost, kept] = RepairPacks(session.GetRepository(), packs, printer, m_removesUnreadable);
    for (const auto& [id, reason] : kept)
        report.EntryFailed(YString(Repo::FileName{FileKind::Pack, id}.Path()),
                           YString(std::string_view(reason)));
    if (session.GetOptions().isJson)
        report.PrintAndLog(CountJson("lost_blobs", lost) + "\n");
    if (lost != 0)
        report.EntryFailed("packs",
                           YString("blobs that are lost: " + std::to_string(lost) +
                                   "; back up the same files again, which stores those that they still have, "
                                   "then check, and only then 'kbagent repair snapshots --forget' removes "
                                   "the others from the snapshots"));
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

std::vector<StoredSnapshot> RepairCommand::Choose(Session& session, Unreadable& unreadable) const
{
    const std::vector<std::string> texts = PathsOf(m_snapshotIds);
    if (texts.empty())
        return ChooseSnapshots(session, {}, m_repository.GetSnapshotOptions());
    std::vector<StoredSnapshot> chosen;
    std::set<Id> known;
    for (const std::string& text : texts) {
        if (text == "latest") {
            StoredSnapshot latest = ChooseSnapshot(session, text, m_repository.GetSnapshotOptions());
            if (known.insert(latest.id).second)
                chosen.push_back(std::move(latest));
            continue;
        }
        const Id id = FindFile(session.GetRepository(), FileKind::Snapshot, text);
        if (!known.insert(id).second)
            continue;
        try {
            chosen.push_back({id, session.GetRepository().LoadSnapshot(id)});
        } catch (const Repo::RepositoryError& error) {
            unreadable.emplace_back(id, error);
        }
    }
    return chosen;
}

void RepairCommand::RepairTheSnapshots(Report& report) const
{
    Session session(m_repository.Get(), report, Access::Exclusive);
    if (!m_options.isDryRun)
        report.GoOnWithoutOutput();
    WorkPrinter printer(report, session.GetOptions());
    Unreadable unreadable;
    const std::vector<StoredSnapshot> snapshots = Choose(session, unreadable);
    session.GetRepository().LoadIndex({}, WorkerCount(), RaiseIfInterrupted);
    if (const std::string misfit = FindMisfit(session.GetRepository(), snapshots, m_options);
        !misfit.empty()) {
        KRT_RAISE_UNLESS(m_options.isDryRun, Krt::ErrorCode::InvalidState, misfit.c_str());
        report.Note(YString("Warning: " + misfit));
    }
    for (const auto& [id, error] : unreadable)
        RemoveUnreadable(session, id, error, printer);
    const RepairOutcome outcome = RepairSnapshots(session.GetRepository(), snapshots, m_options, printer);
    for (const auto& [id, reason] : outcome.failed)
        report.EntryFailed(YString("snapshot " + ShortId(id)), YString(std::string_view(reason)));
    if (outcome.losesDirectories)
        printer.OnNote(
            "directories are lost; 'kbagent recover' before the next prune makes a snapshot of what is "
            "left below them");
    const std::size_t count = outcome.changed;
    if (session.GetOptions().isJson)
        report.PrintAndLog(ChangeCountJson(count) + "\n");
    else if (session.GetOptions().isQuiet)
        return;
    else if (count == 0)
        report.PrintAndLog("no snapshots were modified\n");
    else
        report.PrintAndLog((m_options.isDryRun ? "would modify " : "modified ") +
                           CountText(count, "snapshot", "snapshots") + "\n");
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
