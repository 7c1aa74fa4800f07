#include "agent/Cli/Command.h"

#include "agent/Backup/BackupRun.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Walk/Roots.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <ctime>
#include <sstream>

namespace Agent {

namespace {

std::string SummaryOf(const std::string& id, const BackupCounts& counts, unsigned long long failed,
                      unsigned long long storedBytes)
{
    std::ostringstream text;
    text << "snapshot " << id << "\n"
         << counts.Entries() << " entries: " << counts.ByKind() << "\n"
         << ShortSize(counts.bytes) << " read, " << ShortSize(storedBytes) << " added to the store\n"
         << counts.excluded << " excluded, " << failed << " failed\n";
    return text.str();
}

class BackupCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    std::string m_store;
    std::string m_jobFile;
    bool m_verbose = false;
    CLI::Option* m_paths = nullptr;
};

CLI::App* BackupCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("backup", "Store files and directories as a new snapshot");
    AddStoreOption(*command, m_store);
    command->add_option("--job", m_jobFile, "Read the rules from this job file (JSON)")->type_name("FILE");
    command->add_flag("--verbose", m_verbose, "Print every excluded path");
    m_paths = AddPathArguments(*command, "Entries to store, with everything below them");
    command->footer(
        "The store is created if DIR does not exist. A mount point below a PATH is entered only if it\n"
        "contains a disk's file system or the configuration lists it.\n\n"
        "Example: kbagent backup --store /backup/store /home /etc");
    return command;
}

void BackupCommand::Run(Report& report)
{
    const std::vector<std::string>& paths = PathsOf(m_paths);
    if (paths.empty() && m_jobFile.empty())
        throw UsageError("backup: name at least one PATH, or rules with --job");

    const Job job = LoadJob(m_jobFile, paths);
    for (const Krt::YString& warning : job.warnings)
        report.Note(warning);
    SnapshotHeader header;
    header.time = static_cast<unsigned long long>(std::time(nullptr));
    header.host = Krt::Environment::GetHostName();
    header.paths.assign(job.roots.begin(), job.roots.end());

    RequireSwitches({"disableXattr", "walkIntoUnknownMountPoints"});
    const Store store = Store::OpenOrCreate(m_store);
    StoreSession session(store);
    SnapshotWriter snapshot(session, header);
    BackupRun run(session, snapshot, report, m_verbose);
    Walker walker(job.rules, job.roots, run);
    walker.Skip(store.GetDirectory().Stat());
    walker.Run();
    KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted; no snapshot was created");
    if (run.GetCounts().Entries() == 0)
        report.Note("Warning: nothing was stored, so the snapshot has no entries");
    const std::string id = snapshot.Finish(run.GetCounts().bytes, report.GetFailed());
    report.Summary("The snapshot " + id + " was created",
                   SummaryOf(id, run.GetCounts(), report.GetFailed(), session.GetStoredBytes()));
}

} // namespace

std::unique_ptr<ICommand> MakeBackupCommand()
{
    return std::make_unique<BackupCommand>();
}

} // namespace Agent
