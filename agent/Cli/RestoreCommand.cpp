#include "agent/Cli/Command.h"

#include "agent/Restore/RestoreRun.h"
#include "agent/Restore/Target.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <sstream>

namespace Agent {

namespace {

class RestoreCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    std::string m_store;
    std::string m_snapshot = "latest";
    std::string m_target;
    CLI::Option* m_paths = nullptr;
};

CLI::App* RestoreCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("restore", "Restore entries of a snapshot into a directory");
    AddStoreOption(*command, m_store);
    command->add_option("--snapshot", m_snapshot, "Snapshot ID, a unique prefix of one, or latest")
        ->type_name("ID")
        ->capture_default_str();
    command
        ->add_option("--to", m_target, "Restore into this directory, which is created if it does not exist")
        ->type_name("TARGET")
        ->required();
    m_paths = AddPathArguments(
        *command,
        "Restore only these entries and all below them; give the names themselves, without escapes");
    command->footer(
        "An entry /a/b is restored as TARGET/a/b. Existing files are replaced. Nothing is ever written\n"
        "outside TARGET: symlinks below it are not followed, nor are other users' symlinks on the path to\n"
        "it. The volume of a Windows path becomes a plain directory: C:\\a is restored as TARGET/C/a.\n\n"
        "Example: kbagent restore --store /backup/store --to /tmp/restored /etc/hosts");
    return command;
}

void RestoreCommand::Run(Report& report)
{
    const Store store = Store::Open(m_store);
    SnapshotReader snapshot(store, store.FindSnapshot(m_snapshot));
    {
        const EndingOnInterrupts ending; // nothing is made yet
        snapshot.Verify();
    }

    // All directories of the path to an entry are kept open.
    Krt::Environment::RaiseDescriptorLimit();
    Krt::File::YDirectory target = OpenTarget(m_target, store.GetDirectory(), report);
    Krt::Environment::SetFileCreationMask(077);
    std::vector<Krt::File::YPath> paths;
    for (const std::string& path : PathsOf(m_paths)) {
        const std::string normal = std::filesystem::path(path).lexically_normal().string();
        paths.push_back(Krt::File::YPath(normal.c_str()).AddLeadingSep());
    }

    RestoreRun run(store, std::move(target), std::move(paths), report);
    bool isEmpty = true;
    for (SnapshotEntry entry; snapshot.Next(entry); isEmpty = false) {
        run.Restore(entry);
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState,
                         "Interrupted; what was restored so far stays");
    }
    run.Finish();
    if (isEmpty)
        report.Note("The snapshot has no entries, so nothing was restored");

    const EntryCounts& counts = run.GetCounts();
    std::ostringstream summary;
    summary << counts.Entries() << " entries restored: " << counts.ByKind() << "\n"
            << ShortSize(counts.bytes) << " written, " << report.GetFailed() << " failed\n";
    report.Summary("The restore is done", summary.str());
}

} // namespace

std::unique_ptr<ICommand> MakeRestoreCommand()
{
    return std::make_unique<RestoreCommand>();
}

} // namespace Agent
