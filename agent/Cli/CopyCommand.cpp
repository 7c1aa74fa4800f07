#include "agent/Cli/Command.h"

#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/SaveArguments.h"
#include "agent/Cli/WorkPrinter.h"
#include "agent/Copy/SnapshotCopy.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <filesystem>

namespace Agent {

using Krt::YString;
using Repo::Id;
using Repo::StoredSnapshot;

namespace {

// Returns true if both are one repository. A copy of a repository, which has the same ID, is another one.
bool IsSame(Session& a, Session& b)
{
    if (a.GetRepository().GetConfig().id != b.GetRepository().GetConfig().id || a.IsRemote() != b.IsRemote())
        return false;
    const std::string first = a.GetRepository().GetBackend().Describe().Bytes();
    const std::string second = b.GetRepository().GetBackend().Describe().Bytes();
    std::error_code ignored;
    return first == second || (!a.IsRemote() && std::filesystem::equivalent(first, second, ignored));
}

class CopyCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void CopyAll(Session& source, Session& target, Repo::SaveOptions saving) const;
    void Print(Session& target, const char* kind, const StoredSnapshot& stored, const Id& copy) const;

    RepositoryArguments m_repository;
    SaveArguments m_save;
    CLI::Option* m_ids = nullptr;
};

CLI::App* CopyCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("copy", "Copy snapshots from another repository");
    m_repository.AddTo(*command, LockOptions::Required);
    m_repository.AddSourceTo(*command);
    m_repository.AddSnapshotOptionsTo(*command);
    m_save.AddTo(*command);
    m_ids = AddPathArguments(*command, "Copy only these snapshots: first digits of IDs, or latest", "ID");
    command->footer(
        "Copies to the repository of --repo what that of --from-repo has. Snapshots that were copied before\n"
        "are left out, and so is data that the repository has. An interrupted copy is continued by the next\n"
        "one. Files are not cut again: new backups share data with the copies only if the repository was\n"
        "created with 'kbagent init --copy-chunker-params'.\n\n" +
        std::string(RepositoryHelp) +
        "Example: kbagent copy --repo /mnt/second --from-repo /backup/repository --tag keep");
    return command;
}

void CopyCommand::Run(Report& report)
{
    report.NameWork("copy");
    const Repo::SaveOptions saving = m_save.Get();
    Session target(m_repository.Get(), report, Access::Append);
    Session source(m_repository.GetSource(), report);
    if (IsSame(source, target))
        throw UsageError("--from-repo names the repository of --repo itself; name another source");
    if (!target.GetOptions().isQuiet &&
        source.GetRepository().GetConfig().polynomial != target.GetRepository().GetConfig().polynomial)
        report.Note("The repositories cut files in different places, so that new backups share no data with "
                    "the copies");
    report.GoOnWithoutOutput();
    CopyAll(source, target, saving);
}

void CopyCommand::CopyAll(Session& source, Session& target, Repo::SaveOptions saving) const
{
    Report& report = target.GetReport();
    const std::vector<StoredSnapshot> snapshots =
        ChooseSnapshots(source, PathsOf(m_ids), m_repository.GetSnapshotOptions());
    const auto ignore = [&report](const Repo::FileName& file, const Repo::RepositoryError& error) {
        report.Note("Warning: " + YString(file.Path()) + ": " + ReasonOf(error));
    };
    const std::vector<StoredSnapshot> targets = target.GetRepository().LoadSnapshots({}, ignore);
    source.LoadIndex();
    target.LoadIndex();
    target.FindLostPacks();
    WorkPrinter printer(report, target.GetOptions());
    if (snapshots.empty() && m_ids->count() == 0)
        printer.OnStage("there is no snapshot that the options choose");
    saving.onWait = RaiseIfInterrupted;
    SnapshotCopy copying(source.GetRepository(), target.GetRepository(), saving, printer);
    for (const StoredSnapshot& stored : snapshots) {
        printer.OnStage(DescribeSnapshot(stored));
        if (const StoredSnapshot* const copy = FindCopy(stored, targets)) {
            Print(target, "skipped", stored, copy->id);
            continue;
        }
        try {
            Print(target, "copied", stored, copying.Copy(stored));
        } catch (const SourceError& error) {
            report.EntryFailed(YString("snapshot " + ShortId(stored.id)), ReasonOf(error));
        }
    }
}

void CopyCommand::Print(Session& target, const char* kind, const StoredSnapshot& stored, const Id& copy) const
{
    Report& report = target.GetReport();
    if (target.GetOptions().isJson)
        report.PrintAndLog(R"({"message_type":")" + std::string(kind) + R"(","source_snapshot_id":")" +
                           stored.id.ToHex() + R"(","snapshot_id":")" + copy.ToHex() + "\"}\n");
    else if (!target.GetOptions().isQuiet)
        report.PrintAndLog(std::string(kind) + ": it is snapshot " + ShortId(copy) + "\n");
}

} // namespace

std::unique_ptr<ICommand> MakeCopyCommand()
{
    return std::make_unique<CopyCommand>();
}

} // namespace Agent
