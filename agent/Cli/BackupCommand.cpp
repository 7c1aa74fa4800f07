#include "agent/Cli/Command.h"

#include "agent/Access/Workers.h"
#include "agent/Backup/BackupRun.h"
#include "agent/Backup/RepositoryBackup.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Walk/Roots.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <ctime>
#include <sstream>

namespace Agent {

namespace {

constexpr unsigned int SmallestPack = 4;  // MiB
constexpr unsigned int LargestPack = 128; // MiB
constexpr unsigned int MostReaders = 64;

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

// Returns what was typed, or otherwise the variable.
std::string OptionOr(const std::string& typed, const char* variable)
{
    return typed.empty() ? FromEnvironment({variable}, variable).value_or("") : typed;
}

unsigned int NumberOf(const std::string& text, const std::string& option, unsigned int least,
                      unsigned int most)
{
    unsigned int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < least || number > most)
        throw UsageError(option + " is not a number from " + std::to_string(least) + " to " +
                         std::to_string(most) + ": '" + text + "'");
    return number;
}

Repo::Compression CompressionOf(const std::string& text)
{
    if (text.empty() || text == "auto")
        return Repo::Compression::Auto;
    if (text == "off")
        return Repo::Compression::Off;
    if (text == "max")
        return Repo::Compression::Max;
    throw UsageError("--compression is neither auto, off nor max: '" + text + "'");
}

// A time in the local zone.
std::optional<Repo::Timestamp> TimeOf(const std::string& text)
{
    if (text.empty() || text == "now")
        return std::nullopt;
    std::tm parts{};
    int end = 0;
    const int count = std::sscanf(text.c_str(), "%4d-%2d-%2d %2d:%2d:%2d%n", &parts.tm_year, &parts.tm_mon,
                                  &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &end);
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    parts.tm_isdst = -1;
    const std::tm typed = parts;
    const std::time_t seconds = count == 6 ? std::mktime(&parts) : -1;
    if (count != 6 || static_cast<std::size_t>(end) != text.size() || typed.tm_mon != parts.tm_mon ||
        typed.tm_mday != parts.tm_mday || typed.tm_min != parts.tm_min || typed.tm_sec != parts.tm_sec)
        throw UsageError("--time is not a time as in \"2024-02-29 12:34:56\": '" + text + "'");
    return Repo::Timestamp::Local(seconds, 0);
}

class BackupCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void AddSnapshotOptions(CLI::App& command);
    void AddReadingOptions(CLI::App& command);
    void RunOnStore(Report& report);
    void RunOnRepository(Report& report);
    BackupSettings GetSettings() const;

    std::string m_store;
    RepositoryArguments m_repository;
    BackupSettings m_settings;
    std::vector<std::string> m_tags;
    std::string m_time;
    std::string m_readConcurrency;
    std::string m_compression;
    std::string m_packSize;
    CLI::Option* m_paths = nullptr;
    std::vector<CLI::Option*> m_repositoryOptions; // that exclude --store
};

CLI::App* BackupCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("backup", "Store files and directories as a new snapshot");
    command->add_option("--store", m_store, "Use this directory of the older format, not a repository")
        ->type_name("DIR");
    m_repository.AddTo(*command, LockOptions::Required);
    command->add_option("--job", m_settings.jobFile, "Read the rules from this job file (JSON)")
        ->type_name("FILE");
    AddSnapshotOptions(*command);
    AddReadingOptions(*command);
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

void BackupCommand::AddSnapshotOptions(CLI::App& command)
{
    command.add_option("-H,--host", m_settings.host, "Note this host in the snapshot")->type_name("HOST");
    command.add_option("--tag", m_tags, "Give the snapshot these tags, as in a,b")
        ->type_name("LIST")
        ->allow_extra_args(false);
    command
        .add_option("--time", m_time, "Note this local time in the snapshot, as in \"2024-02-29 12:34:56\"")
        ->type_name("TIME");
    command
        .add_option("--parent", m_settings.parent,
                    "Compare with this snapshot, not with the latest of the same host and paths")
        ->type_name("ID");
    command.add_flag("-f,--force", m_settings.isForced, "Read all files, without a parent");
    command.add_flag("--skip-if-unchanged", m_settings.skipsIfUnchanged,
                     "Create no snapshot if nothing changed since the parent");
    command.add_flag("-n,--dry-run", m_settings.isDryRun, "Write nothing");
}

void BackupCommand::AddReadingOptions(CLI::App& command)
{
    command.add_flag("--ignore-ctime", m_settings.ignoresChangeTime,
                     "Regard files as unchanged whatever their change time");
    command.add_flag("--ignore-inode", m_settings.ignoresInode,
                     "Regard files as unchanged whatever their inode and change time");
    command.add_option("--read-concurrency", m_readConcurrency, "Read this many files at the same time")
        ->type_name("N");
    command.add_option("--compression", m_compression, "How data is compressed: auto, off or max")
        ->type_name("MODE");
    command.add_option("--pack-size", m_packSize, "The size of pack files in MiB, 4 to 128")
        ->type_name("SIZE");
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
    settings.repository = m_repository.Get();
    settings.paths = PathsOf(m_paths);
    settings.host = OptionOr(m_settings.host, "HOST");
    for (const std::string& list : m_tags) {
        std::istringstream words(list);
        for (std::string tag; std::getline(words, tag, ',');) {
            if (!tag.empty())
                settings.tags.push_back(tag);
        }
    }
    settings.time = TimeOf(m_time);
    const std::string readers = OptionOr(m_readConcurrency, "READ_CONCURRENCY");
    settings.readers =
        readers.empty() ? WorkerCount() : NumberOf(readers, "--read-concurrency", 1, MostReaders);
    settings.save.compression = CompressionOf(OptionOr(m_compression, "COMPRESSION"));
    const std::string packSize = OptionOr(m_packSize, "PACK_SIZE");
    if (!packSize.empty())
        settings.save.packSize = NumberOf(packSize, "--pack-size", SmallestPack, LargestPack) << 20;
    if (settings.isForced && !settings.parent.empty())
        throw UsageError("--force and --parent exclude each other");
    return settings;
}

void BackupCommand::RunOnRepository(Report& report)
{
    const BackupSettings settings = GetSettings();
    const bool isJson = settings.repository.isJson;
    const bool isQuiet = settings.repository.isQuiet;
    if (isJson)
        report.UseJson();
    report.NameWork("archival");
    const auto begin = std::chrono::steady_clock::now();
    const BackupOutcome outcome =
        BackUp(settings, report, [&](const SnapshotCounts& counts, std::uint64_t failed) {
            if (isQuiet)
                return;
            const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
            if (isJson) {
                report.Out() << StatusJson(counts, failed, seconds.count()) << "\n";
                report.Out().Flush();
            } else
                report.Progress(counts.Files() + counts.others, counts.bytes);
        });
    const std::string text = SummaryText(settings, outcome);
    const std::string done =
        outcome.id ? "The snapshot " + outcome.id->ToHex() + " was created" : "The run ended";
    if (isJson || isQuiet) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            KRT_LOG_FREE(Krt::MessageType::General, line.c_str());
    }
    if (isJson)
        report.Summary(done, SummaryJson(settings, outcome) + "\n");
    else if (!isQuiet)
        report.Summary(done, text);
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
    BackupRun run(session, snapshot, report, m_repository.Get().isVerbose);
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
