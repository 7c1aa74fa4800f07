#include "agent/Cli/NewSnapshotArguments.h"

#include "agent/Access/TagChange.h"
#include "agent/Access/Workers.h"
#include "agent/Backup/NewSnapshotText.h"
#include "agent/Run/UsageError.h"

#include "Krt/Log/LogSite.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <ctime>
#include <sstream>
#include <utility>

namespace Agent {

namespace {

constexpr unsigned int SmallestPack = 4;  // MiB
constexpr unsigned int LargestPack = 128; // MiB
constexpr unsigned int MostReaders = 64;

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

// Prints the progress.
class Observer : public ISnapshotObserver
{
public:
    Observer(Report& report, const RepositoryOptions& options)
        : m_report(report), m_isJson(options.isJson), m_isQuiet(options.isQuiet),
          m_isVerbose(options.isVerbose)
    {}

    void OnProgress(const SnapshotProgress& progress) override
    {
        if (m_isQuiet)
            return;
        if (!m_isJson) {
            m_report.Progress(progress.counts.Files() + progress.counts.others, progress.counts.bytes);
            return;
        }
        if (m_isVerbose && progress.totals.isComplete && !std::exchange(m_isScanReported, true))
            m_report.Out() << ScanJson(progress.totals) << "\n";
        m_report.Out() << StatusJson(progress) << "\n";
        m_report.Out().Flush();
    }
    void OnStored(const StoredItem& item) override { m_report.Out() << StoredJson(item) << "\n"; }

private:
    Report& m_report;
    const bool m_isJson;
    const bool m_isQuiet;
    const bool m_isVerbose;
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
    command.add_flag("-n,--dry-run", m_settings.isDryRun, "Write nothing");
    command.add_option("--read-concurrency", m_readConcurrency, "Read this many files at the same time")
        ->type_name("N");
    command.add_option("--compression", m_compression, "How data is compressed: auto, off or max")
        ->type_name("MODE");
    command.add_option("--pack-size", m_packSize, "The size of pack files in MiB, 4 to 128")
        ->type_name("SIZE");
}

SnapshotSettings NewSnapshotArguments::Get() const
{
    SnapshotSettings settings = m_settings;
    settings.repository = m_repository.Get();
    const RepositoryOptions& options = settings.repository;
    settings.reportsStored = options.isJson && !options.isQuiet && options.isVerbose;
    settings.host = OptionOr(m_settings.host, "HOST");
    for (const std::string& list : m_tags) {
        for (std::string& tag : TagsOfList(list))
            settings.tags.push_back(std::move(tag));
    }
    settings.time = TimeOf(m_time);
    const std::string readers = OptionOr(m_readConcurrency, "READ_CONCURRENCY");
    settings.readers =
        readers.empty() ? WorkerCount() : NumberOf(readers, "--read-concurrency", 1, MostReaders);
    settings.save.compression = CompressionOf(OptionOr(m_compression, "COMPRESSION"));
    const std::string packSize = OptionOr(m_packSize, "PACK_SIZE");
    if (!packSize.empty())
        settings.save.packSize = NumberOf(packSize, "--pack-size", SmallestPack, LargestPack) << 20;
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
    Observer observer(report, settings.repository);
    const SnapshotOutcome outcome = create(observer);
    const std::string text = summaryOf(outcome);
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

} // namespace Agent
