#include "agent/Cli/Command.h"

#include "agent/Backup/BackupRun.h"
#include "agent/Cli/NewSnapshotArguments.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

class BackupCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void AddComparingOptions(CLI::App& command);
    BackupSettings GetSettings() const;

    NewSnapshotArguments m_snapshot;
    BackupSettings m_settings;
    bool m_hasNoScan = false;
    CLI::Option* m_paths = nullptr;
};

CLI::App* BackupCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("backup", "Store files and directories as a new snapshot");
    command->add_option("--job", m_settings.jobFile, "Read the rules from this job file (JSON)")
        ->type_name("FILE");
    m_snapshot.AddTo(*command);
    AddComparingOptions(*command);
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
    const BackupSettings settings = GetSettings();
    report.NameWork("archival");
    CreateSnapshot(
        settings, report, [&](ISnapshotObserver& observer) { return BackUp(settings, report, observer); },
        [&](const SnapshotOutcome& outcome) { return SummaryText(settings, outcome); });
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

} // namespace

std::unique_ptr<ICommand> MakeBackupCommand()
{
    return std::make_unique<BackupCommand>();
}

} // namespace Agent
