#include "agent/Cli/NewSnapshotArguments.h"

#include "agent/Access/TagChange.h"
#include "agent/Access/Workers.h"
#include "agent/Backup/NewSnapshotText.h"
#include "agent/Run/UsageError.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <ctime>
#include <utility>

namespace Agent {

namespace {

constexpr unsigned int MostReaders = 64;

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

// Without complete totals, there are none.
ProgressFacts FactsOf(const SnapshotProgress& progress)
{
    ProgressFacts facts{.items = progress.counts.Files(), .unit = "files", .bytes = progress.counts.bytes};
    if (progress.totals.isComplete) {
        facts.totalItems = progress.totals.files;
        facts.totalBytes = progress.totals.bytes;
    }
    if (!progress.currentFiles.empty())
        facts.current = progress.currentFiles.front();
    return facts;
}

// Prints the progress.
class Observer : public ISnapshotObserver
{
public:
    Observer(Report& report, const RepositoryOptions& options)
        : m_report(report), m_isJson(options.isJson), m_isVerbose(options.isVerbose),
          m_printsUnchanged(options.isVeryVerbose)
    {}

    void OnProgress(const SnapshotProgress& progress) override
    {
        constexpr std::chrono::milliseconds betweenDocuments{0}; // it is called 10 times a second
        if (!m_isJson) {
            m_report.Progress([&] { return FactsOf(progress); });
            return;
        }
        if (!m_report.IsStatusDue(betweenDocuments))
            return;
        if (m_isVerbose && progress.totals.isComplete && !std::exchange(m_isScanReported, true))
            m_report.Out() << ScanJson(progress.totals) << "\n";
        m_report.Out() << StatusJson(progress) << "\n";
        m_report.Out().Flush();
    }
    void OnStored(const StoredItem& item) override
    {
        if (m_isJson)
            m_report.Out() << StoredJson(item) << "\n";
        else if (item.change != Change::Unchanged || m_printsUnchanged)
            m_report.Out() << StoredText(item) << "\n";
    }

private:
    Report& m_report;
    const bool m_isJson;
    const bool m_isVerbose;
    const bool m_printsUnchanged;
    bool m_isScanReported = false;
};

} // namespace

void NewSnapshotArguments::AddTo(CLI::App& command)
{
    m_repository.AddTo(command, LockOptions::Required);
    command.add_option("-H,--host", m_settings.host, "Note this host in the snapshot")->type_name("HOST");
    command.add_option("--tag", m_tags, "Give the snapshot these tags, as in a,b")
        ->type_name("LIST")
        ->allow_extra_args(false);
    command
        .add_option("--time", m_time, "Note this local time in the snapshot, as in \"2024-02-29 12:34:56\"")
        ->type_name("TIME");
    command.add_flag(
        "-n,--dry-run", m_settings.isDryRun,
        "Write nothing, and print what would be stored; with --verbose, each new or changed entry");
    command.add_option("--read-concurrency", m_readConcurrency, "Read this many files at the same time")
        ->type_name("N");
    m_save.AddTo(command);
}

SnapshotSettings NewSnapshotArguments::Get() const
{
    SnapshotSettings settings = m_settings;
    settings.repository = m_repository.Get();
    const RepositoryOptions& options = settings.repository;
    settings.reportsStored =
        !options.isQuiet &&
        (options.isVeryVerbose || (options.isVerbose && (options.isJson || settings.isDryRun)));
    settings.host = OptionOr(m_settings.host, "HOST");
    for (const std::string& list : m_tags) {
        for (std::string& tag : TagsOfList(list))
            settings.tags.push_back(std::move(tag));
    }
    settings.time = TimeOf(m_time);
    const std::string readers = OptionOr(m_readConcurrency, "READ_CONCURRENCY");
    settings.readers =
        readers.empty() ? WorkerCount() : NumberOf(readers, "--read-concurrency", 1, MostReaders);
    settings.save = m_save.Get();
    return settings;
}

void CreateSnapshot(const SnapshotSettings& settings, Report& report,
                    const std::function<SnapshotOutcome(ISnapshotObserver& observer)>& create,
                    const std::function<std::string(const SnapshotOutcome& outcome)>& summaryOf)
{
    const bool isJson = settings.repository.isJson;
    const bool isQuiet = settings.repository.isQuiet;
    if (isJson)
        report.UseJson();
    if (!settings.isDryRun)
        report.GoOnWithoutOutput(LostOutput::Summary);
    Observer observer(report, settings.repository);
    const SnapshotOutcome outcome = create(observer);
    const std::string text = summaryOf(outcome);
    const std::string done =
        outcome.id ? "The snapshot " + outcome.id->ToHex() + " was created" : "The run ended";
    const std::string printed = isJson ? SummaryJson(settings, outcome) + "\n" : text;
    if (isJson)
        report.LogSummary(text);
    if (settings.isDryRun) // the summary is all that it is for
        report.PrintAndLog(printed);
    else if (isQuiet && !isJson)
        report.LogSummary(text);
    else
        report.Summary(done, printed);
}

} // namespace Agent
