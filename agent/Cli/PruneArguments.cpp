#include "agent/Cli/PruneArguments.h"

#include "agent/Cli/WorkPrinter.h"
#include "agent/Prune/PruneRun.h"
#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace Agent {

namespace {

std::uint64_t RequireSize(const std::string& option, const std::string& text)
{
    const std::optional<std::uint64_t> size = ParseSize(text);
    if (!size)
        throw UsageError(option + " takes a size such as 500M: '" + text + "'");
    return *size;
}

// The title is padded, so that the numbers of several lines are below each other.
std::string Padded(const char* title, std::uint64_t number)
{
    char text[64];
    std::snprintf(text, sizeof text, "%-14s%10llu", title, static_cast<unsigned long long>(number));
    return text;
}

std::string Line(const char* title, const BlobAmount& amount)
{
    return Padded(title, amount.blobs) + " blobs / " + ShortSize(amount.bytes) + "\n";
}

std::string Share(std::uint64_t part, std::uint64_t whole)
{
    char text[32];
    const double percent = whole == 0 ? 0 : 100 * static_cast<double>(part) / static_cast<double>(whole);
    std::snprintf(text, sizeof text, "%.2f%%", percent);
    return text;
}

std::string DetailsOf(const PruneStatistics& statistics)
{
    const BlobAmount total = statistics.Total();
    std::string text = "\n" + Line("used:", statistics.used);
    if (statistics.duplicate.blobs != 0)
        text += Line("duplicates:", statistics.duplicate);
    text += Line("unused:", statistics.unused);
    if (statistics.unindexedBytes != 0)
        text += "unreferenced:                    " + ShortSize(statistics.unindexedBytes) + "\n";
    text += Line("total:", total);
    const std::uint64_t unused =
        statistics.duplicate.bytes + statistics.unused.bytes + statistics.unindexedBytes;
    return text + "unused size: " + Share(unused, total.bytes) + " of total size\n";
}

std::string PacksOf(const PruneStatistics& statistics)
{
    std::string text = "\n";
    const auto count = [&](const char* title, std::uint64_t number) {
        char line[64];
        std::snprintf(line, sizeof line, "%-19s %10llu\n", title, static_cast<unsigned long long>(number));
        text += line;
    };
    count("totally used packs:", statistics.usedPacks);
    count("partly used packs:", statistics.partlyUsedPacks);
    count("unused packs:", statistics.unusedPacks);
    text += "\n" + Padded("to keep:", statistics.keptPacks) + " packs\n";
    text += Padded("to repack:", statistics.repackedPacks) + " packs\n";
    text += Padded("to delete:", statistics.removedPacks) + " packs\n";
    if (statistics.unindexedPacks != 0)
        text += Padded("to delete:", statistics.unindexedPacks) + " unreferenced packs\n";
    return text;
}

std::string TextOf(const PruneStatistics& statistics, bool isVerbose)
{
    BlobAmount removed = statistics.remove;
    removed.bytes += statistics.unindexedBytes;
    const BlobAmount remaining = statistics.Remaining();
    std::string text = isVerbose ? DetailsOf(statistics) : "";
    text += "\n" + Line("to repack:", statistics.repack) + Line("this removes:", statistics.repackRemove) +
            Line("to delete:", removed) + Line("total prune:", statistics.TotalRemove()) +
            Line("remaining:", remaining);
    text += "unused size after prune: " + ShortSize(statistics.RemainingUnused()) + " (" +
            Share(statistics.RemainingUnused(), remaining.bytes) + " of remaining size)\n";
    return text + (isVerbose ? PacksOf(statistics) : "") + "\n";
}

std::string JsonOf(const PruneStatistics& statistics)
{
    std::string json;
    Repo::JsonWriter writer(json);
    const auto number = [&](const char* key, std::uint64_t value) {
        writer.Key(key);
        writer.Number(value);
    };
    const auto begin = [&](const char* key) {
        writer.Key(key);
        writer.BeginObject();
    };
    const BlobAmount total = statistics.Total(), removed = statistics.TotalRemove(),
                     remaining = statistics.Remaining();
    writer.BeginObject();
    writer.Key("message_type");
    writer.String("summary");
    begin("blobs");
    number("used", statistics.used.blobs);
    number("duplicate", statistics.duplicate.blobs);
    number("unused", statistics.unused.blobs);
    number("total", total.blobs);
    number("repack", statistics.repack.blobs);
    number("repack_remove", statistics.repackRemove.blobs);
    number("remove", statistics.remove.blobs);
    number("remove_total", removed.blobs);
    number("remaining", remaining.blobs);
    writer.EndObject();
    begin("bytes");
    number("used", statistics.used.bytes);
    number("duplicate", statistics.duplicate.bytes);
    number("unused", statistics.unused.bytes);
    number("unreferenced", statistics.unindexedBytes);
    number("uncompressed", statistics.uncompressedBytes);
    number("total", total.bytes);
    number("repack", statistics.repack.bytes);
    number("repack_remove", statistics.repackRemove.bytes);
    number("remove", statistics.remove.bytes);
    number("remove_total", removed.bytes);
    number("remaining", remaining.bytes);
    number("remaining_unused", statistics.RemainingUnused());
    writer.EndObject();
    begin("packfiles");
    number("used", statistics.usedPacks);
    number("unused", statistics.unusedPacks);
    number("partly_used", statistics.partlyUsedPacks);
    number("unreferenced", statistics.unindexedPacks);
    number("total", statistics.usedPacks + statistics.unusedPacks + statistics.partlyUsedPacks +
                        statistics.unindexedPacks);
    number("keep", statistics.keptPacks);
    number("repack", statistics.repackedPacks);
    number("remove", statistics.removedPacks);
    number("remove_total", statistics.removedPacks + statistics.unindexedPacks);
    writer.EndObject();
    writer.EndObject();
    return json + "\n";
}

} // namespace

void PruneArguments::AddTo(CLI::App& command)
{
    command
        .add_option("--max-unused", m_maxUnused,
                    "Repack until at most this much is unused: a size, a percentage of what remains, or\n"
                    "unlimited")
        ->type_name("LIMIT")
        ->capture_default_str();
    command.add_option("--max-repack-size", m_maxRepackSize, "Repack packs of at most this size in all")
        ->type_name("SIZE");
    command.add_flag("--repack-small", m_repacksSmall, "Also repack packs below 80 % of a full pack");
    command.add_option("--repack-smaller-than", m_smallerThan, "Also repack packs below this size")
        ->type_name("SIZE");
    command.add_flag("--repack-cacheable-only", m_options.repacksOnlyTrees, "Repack only packs of trees");
    command.add_flag("--repack-uncompressed", m_options.repacksUncompressed,
                     "Also repack packs with anything uncompressed, and compress it");
    m_save.AddTo(command);
}

PruneOptions PruneArguments::Get() const
{
    PruneOptions options = m_options;
    options.maxUnused = UnusedLimit::Parse(m_maxUnused);
    options.save = m_save.Get();
    if (options.repacksUncompressed && options.save.compression == Repo::Compression::Off)
        throw UsageError("--repack-uncompressed and --compression off exclude each other");
    if (!m_maxRepackSize.empty())
        options.maxRepackSize = RequireSize("--max-repack-size", m_maxRepackSize);
    if (!m_smallerThan.empty())
        options.smallSize = RequireSize("--repack-smaller-than", m_smallerThan);
    else if (m_repacksSmall)
        options.smallSize = options.save.packSize / 5 * 4;
    if (options.smallSize > options.save.packSize)
        throw UsageError("--repack-smaller-than is above the size of new packs, so each prune would repack "
                         "these; raise --pack-size, or lower it: '" +
                         m_smallerThan + "'");
    return options;
}

void PruneAndPrint(Session& session, const PruneOptions& options)
{
    const RepositoryOptions& access = session.GetOptions();
    Report& report = session.GetReport();
    if (!options.isDryRun)
        report.GoOnWithoutOutput();
    WorkPrinter printer(report, access);
    PruneStatistics statistics;
    try {
        Prune(session.GetRepository(), options, printer, [&](const PruneStatistics& planned) {
            statistics = planned;
            const std::string text = TextOf(planned, access.isVerbose);
            if (access.isJson || access.isQuiet)
                report.LogSummary(text);
            else
                report.PrintAndLog(text);
        });
    } catch (const Repo::RepositoryError& error) {
        const Repo::Failure failure = error.GetFailure();
        if (failure == Repo::Failure::Missing || failure == Repo::Failure::Damaged)
            report.Note("Nothing that snapshots need was removed. 'kbagent check --read-data' finds out what "
                        "is damaged, and 'kbagent repair' repairs it");
        throw;
    }
    if (access.isJson)
        report.Out() << JsonOf(statistics);
}

} // namespace Agent
