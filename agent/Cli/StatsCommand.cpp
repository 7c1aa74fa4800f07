#include "agent/Cli/Command.h"

#include "agent/Cli/RepositoryArguments.h"
#include "agent/Inspect/Statistics.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>

namespace Agent {

using Krt::YString;

namespace {

const std::map<std::string, StatisticsMode> Modes{{"restore-size", StatisticsMode::RestoreSize},
                                                  {"files-by-contents", StatisticsMode::FilesByContents},
                                                  {"blobs-per-file", StatisticsMode::BlobsPerFile},
                                                  {"raw-data", StatisticsMode::RawData}};

class StatsCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    std::string TextOf(const Statistics& statistics) const;
    std::string JsonOf(const Statistics& statistics) const;

    RepositoryArguments m_repository;
    CLI::Option* m_ids = nullptr;
    std::string m_mode = "restore-size";
};

CLI::App* StatsCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("stats", "Count what snapshots of a repository have");
    m_repository.AddTo(*command);
    m_repository.AddSnapshotOptionsTo(*command);
    command
        ->add_option("--mode", m_mode,
                     "What is counted: restore-size, files-by-contents, blobs-per-file or raw-data")
        ->type_name("MODE")
        ->check(CLI::IsMember(Modes));
    m_ids = AddPathArguments(*command, "The snapshots: first digits of IDs, or latest; all if there is none",
                             "ID");
    command->footer(
        "restore-size       all entries, and the bytes of all files; hard links count once in a snapshot\n"
        "files-by-contents  entries whose content is different; all those without content count as one\n"
        "blobs-per-file     files whose content is different, and the different blobs of each\n"
        "raw-data           the blobs that the snapshots use, as they are stored\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent stats --repo /backup/repository --mode raw-data");
    return command;
}

void StatsCommand::Run(Report& report)
{
    Session session(m_repository.Get(), report);
    const auto snapshots = ChooseSnapshots(session, PathsOf(m_ids), m_repository.GetSnapshotOptions());
    session.LoadIndex();
    std::uint64_t entries = 0;
    const Statistics statistics = CountStatistics(
        session.GetRepository(), snapshots, Modes.at(m_mode),
        [&] {
            ++entries;
            report.Progress([&] { return ProgressFacts{.items = entries, .unit = "entries"}; });
        },
        [&](const std::string& path, const Krt::Exception::YError& error) {
            report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
        });
    report.Out() << (m_repository.IsJson() ? JsonOf(statistics) : TextOf(statistics));
}

std::string Ratio(std::uint64_t above, std::uint64_t below, double factor)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.6g",
                  factor * static_cast<double>(above) / static_cast<double>(below));
    return text;
}

std::string StatsCommand::TextOf(const Statistics& statistics) const
{
    std::string text = "Stats in " + m_mode + " mode:\n";
    const auto line = [&](const char* title, const std::string& value) {
        char padded[32];
        std::snprintf(padded, sizeof padded, "%19s", title);
        text += std::string(padded) + "  " + value + "\n";
    };
    line("Snapshots processed:", std::to_string(statistics.snapshots));
    if (statistics.blobs != 0)
        line("Total Blob Count:", std::to_string(statistics.blobs));
    if (statistics.files != 0)
        line("Total File Count:", std::to_string(statistics.files));
    if (statistics.compressedSize != 0) {
        line("Uncompressed Size:", ShortSize(statistics.plainSize));
        line("Compression Ratio:", Ratio(statistics.plainSize, statistics.size, 1) + "x");
    }
    line("Total Size:", ShortSize(statistics.size));
    return text;
}

std::string StatsCommand::JsonOf(const Statistics& statistics) const
{
    std::string json;
    Repo::JsonWriter writer(json);
    const auto number = [&](const char* key, std::uint64_t value) {
        writer.Key(key);
        writer.Number(value);
    };
    const auto ratio = [&](const char* key, std::uint64_t above, std::uint64_t below, double factor) {
        writer.Key(key);
        writer.Raw(Ratio(above, below, factor));
    };
    writer.BeginObject();
    number("total_size", statistics.size);
    if (statistics.compressedSize != 0) {
        number("total_uncompressed_size", statistics.plainSize);
        ratio("compression_ratio", statistics.compressedPlainSize, statistics.compressedSize, 1);
        ratio("compression_progress", statistics.compressedPlainSize, statistics.plainSize, 100);
        const std::uint64_t saved =
            statistics.plainSize > statistics.size ? statistics.plainSize - statistics.size : 0;
        ratio("compression_space_saving", saved, statistics.plainSize, 100);
    }
    number("total_file_count", statistics.files);
    if (statistics.blobs != 0)
        number("total_blob_count", statistics.blobs);
    number("snapshots_count", statistics.snapshots);
    writer.EndObject();
    return json + "\n";
}

} // namespace

std::unique_ptr<ICommand> MakeStatsCommand()
{
    return std::make_unique<StatsCommand>();
}

} // namespace Agent
