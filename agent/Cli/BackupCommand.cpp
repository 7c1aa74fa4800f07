#include "agent/Cli/Command.h"

#include "agent/Backup/BackupRun.h"
#include "agent/Backup/RepositoryBackup.h"
#include "agent/Cli/NewSnapshotArguments.h"
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
    void AddComparingOptions(CLI::App& command);
    void RunOnStore(Report& report);
    void RunOnRepository(Report& report);
    BackupSettings GetSettings() const;

    std::string m_store;
    NewSnapshotArguments m_snapshot;
    BackupSettings m_settings;
    bool m_hasNoScan = false;
    CLI::Option* m_paths = nullptr;
    std::vector<CLI::Option*> m_repositoryOptions; // that exclude --store
};

CLI::App* BackupCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("backup", "Store files and directories as a new snapshot");
    command->add_option("--store", m_store, "Use this directory of the older format, not a repository")
        ->type_name("DIR");
    command->add_option("--job", m_settings.jobFile, "Read the rules from this job file (JSON)")
        ->type_name("FILE");
    m_snapshot.AddTo(*command);
    AddComparingOptions(*command);
    for (CLI::Option* const option : command->get_options()) {
        const auto isNamed = [option](const char* name) {
            return option->check_name(name);
        };
        if (!isNamed("--store") && !isNamed("--job") && !isNamed("--verbose"))
            m_repositoryOptions.push_back(option);
    }
    m_paths = AddPathArguments(*command, "Entries to store, with everything below them");
    command->footer("A mount point below a PATH is entered only if it contains a disk's file system or the "
                    "configuration\n"
                    "lists it. With --verbose, every excluded path is printed.\n\n" +
                    std::string(RepositoryHelp) +
                    "Example: kbagent backup --repo /backup/repository /home /etc");
    return command;
}

void BackupCommand::AddComparingOptions(CLI::App& command)
{
    command
        .add_option("--parent", m_settings.parent,
                    "Compare with this snapshot, not with the latest of the same host and paths")
        ->type_name("ID");
    command.add_flag("-f,--force", m_settings.isForced, "Read all files, without a parent");
    command.add_flag("--skip-if-unchanged", m_settings.skipsIfUnchanged,
                     "Create no snapshot if nothing changed since the parent");
    command.add_flag("--ignore-ctime", m_settings.ignoresChangeTime,
                     "Regard files as unchanged whatever their change time");
    command.add_flag("--ignore-inode", m_settings.ignoresInode,
                     "Regard files as unchanged whatever their inode and change time");
    command.add_flag("--no-scan", m_hasNoScan,
                     "Do not count the files first; with --json the progress has no totals then");
}

void BackupCommand::Run(Report& report)
{
    if (PathsOf(m_paths).empty() && m_settings.jobFile.empty())
        throw UsageError("backup: name at least one PATH, or rules with --job");
    RequireSwitches({"disableXattr", "walkIntoUnknownMountPoints"});
    if (m_store.empty())
        return RunOnRepository(report);
    for (const CLI::Option* const option : m_repositoryOptions) {
        if (option->count() != 0)
            throw UsageError(option->get_name() + " can't be given together with --store");
    }
    RunOnStore(report);
}

BackupSettings BackupCommand::GetSettings() const
{
    BackupSettings settings = m_settings;
    static_cast<SnapshotSettings&>(settings) = m_snapshot.Get();
    settings.paths = PathsOf(m_paths);
    settings.scans = settings.repository.isJson && !settings.repository.isQuiet && !m_hasNoScan;
    if (settings.isForced && !settings.parent.empty())
        throw UsageError("--force and --parent exclude each other");
    return settings;
}

void BackupCommand::RunOnRepository(Report& report)
{
    const BackupSettings settings = GetSettings();
    report.NameWork("archival");
    CreateSnapshot(
        settings, report, [&](ISnapshotObserver& observer) { return BackUp(settings, report, observer); },
        [&](const SnapshotOutcome& outcome) { return SummaryText(settings, outcome); });
}

void BackupCommand::RunOnStore(Report& report)
{
    const Job job = LoadJob(m_settings.jobFile, PathsOf(m_paths));
    for (const Krt::YString& warning : job.warnings)
        report.Note(warning);
    SnapshotHeader header;
    header.time = static_cast<unsigned long long>(std::time(nullptr));
    header.host = Krt::Environment::GetHostName();
    header.paths.assign(job.roots.begin(), job.roots.end());

    const Store store = Store::OpenOrCreate(m_store);
    StoreSession session(store);
    SnapshotWriter snapshot(session, header);
    BackupRun run(session, snapshot, report, m_snapshot.Get().repository.isVerbose);
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
