#include "agent/Cli/Command.h"

#include "agent/Cli/RecordArguments.h"
#include "agent/Convert/Convert.h"
#include "agent/Import/ImportRun.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <ctime>
#include <filesystem>
#include <sstream>

namespace Agent {

namespace {

class ImportCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    SnapshotHeader MakeHeader() const;

    std::string m_store;
    std::string m_contents;
    RecordArguments m_records;
};

CLI::App* ImportCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("import", "Store records that were kept elsewhere as a new snapshot");
    AddStoreOption(*command, m_store);
    command->add_option("--contents", m_contents, "Directory with the file contents, laid out by job path")
        ->type_name("DIR")
        ->required();
    m_records.AddTo(*command);
    command->footer(
        "The content of a record is read from its first path below DIR: DIR/C:/a/b for C:\\a\\b. The name\n"
        "of a volume may also be the one that restore gives it: DIR/C/a/b. The other paths of the record\n"
        "become hard links. Symlinks below DIR are not followed.\n\n" +
        std::string(JobPathHelp) +
        "Example: kbagent import --store /backup/store --contents /mnt/old records.json");
    return command;
}

void ImportCommand::Run(Report& report)
{
    const Backup::YJobPath base = m_records.GetBase();
    ContentFolder contents(Krt::File::YDirectory::OpenFollowing(Krt::File::YPath(m_contents.c_str())));
    ConvertedRecords records(m_records.GetFile(), base, report);
    // The directories on the way to a content are all held open.
    Krt::Environment::RaiseDescriptorLimit();

    const Store store = Store::OpenOrCreate(m_store);
    StoreSession session(store);
    SnapshotWriter snapshot(session, MakeHeader());
    ImportRun run(session, snapshot, std::move(contents), report);
    while (const boost::shared_ptr<Backup::File::YMetadataBase> metadata = records.Next()) {
        run.Import(*metadata, records.GetLine());
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted; no snapshot was made");
    }

    const EntryCounts& counts = run.GetCounts();
    const std::string id = snapshot.Finish(counts.bytes, report.GetFailed());
    std::ostringstream summary;
    summary << "snapshot " << id << "\n"
            << counts.Entries() << " entries: " << counts.ByKind() << "\n"
            << ShortSize(counts.bytes) << " read, " << ShortSize(session.GetStoredBytes())
            << " added to the store\n"
            << report.GetFailed() << " failed\n";
    report.Summary("The snapshot " + id + " was made", summary.str());
}

SnapshotHeader ImportCommand::MakeHeader() const
{
    SnapshotHeader header;
    header.time = static_cast<unsigned long long>(std::time(nullptr));
    header.host = Krt::Environment::GetHostName();
    header.paths.emplace_back(std::filesystem::absolute(m_contents).lexically_normal().c_str());
    return header;
}

} // namespace

std::unique_ptr<ICommand> MakeImportCommand()
{
    return std::make_unique<ImportCommand>();
}

} // namespace Agent
