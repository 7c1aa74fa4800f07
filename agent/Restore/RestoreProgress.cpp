#include "agent/Restore/RestoreProgress.h"

#include "agent/Repository/Json.h"
#include "agent/Run/Text.h"

#include <cstdio>

namespace Agent {

namespace {

constexpr std::chrono::milliseconds StatusInterval{1000};

// As restic prints sizes: "999 B", "1.500 KiB".
std::string SizeText(unsigned long long bytes)
{
    constexpr const char* Units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(Units); ++unit)
        value /= 1024;
    char text[64];
    std::snprintf(text, sizeof(text), "%.3f %s", value, Units[unit]);
    return text;
}

unsigned long long SecondsSince(std::chrono::steady_clock::time_point start)
{
    const auto elapsed = std::chrono::steady_clock::now() - start;
    return static_cast<unsigned long long>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count());
}

} // namespace

RestoreProgress::RestoreProgress(const RestoreSettings& settings, Report& report)
    : m_settings(settings), m_report(report), m_start(std::chrono::steady_clock::now())
{}

void RestoreProgress::CountFound(const RestoreItem& item)
{
    ++m_totals.files;
    if (item.recorded.type == S_IFREG)
        m_totals.bytes += item.recorded.size;
}

void RestoreProgress::CountDone(const RestoreItem& item)
{
    using Action = RestoreItem::Action;
    const bool isFile = item.recorded.type == S_IFREG;
    const unsigned long long size = isFile ? item.recorded.size : 0;
    const bool isSkipped = item.action == Action::Skip || item.action == Action::KeepUnchanged;
    ++(isSkipped ? m_totals.skipped : m_totals.restored);
    (isSkipped ? m_totals.bytesSkipped : m_totals.bytesRestored) += size;
    if (m_settings.isDryRun && !isSkipped)
        CountForeseen(item, size);
    if (isSkipped && !m_settings.isVerbose)
        return;
    const bool isKept = item.action == Action::Skip && !m_settings.isJson; // restic has no such word
    const char* const action = isKept                                    ? "skipped"
                               : isSkipped                               ? "unchanged"
                               : item.action == Action::Update && isFile ? "updated"
                                                                         : "restored";
    Print(action, item.path, isFile ? std::optional(size) : std::nullopt);
}

void RestoreProgress::CountForeseen(const RestoreItem& item, unsigned long long size)
{
    const bool exists = item.existing.st_mode != 0;
    if (exists && item.recorded.type == S_IFDIR && S_ISDIR(item.existing.st_mode)) {
        ++m_totals.present;
        return;
    }
    ++(exists ? m_totals.replaced : m_totals.created);
    (exists ? m_totals.bytesReplaced : m_totals.bytesCreated) += size;
}

void RestoreProgress::CountDeleted(const std::string& path)
{
    ++m_totals.deleted;
    Print("deleted", path, std::nullopt);
}

void RestoreProgress::CountVerified(unsigned long long size)
{
    ++m_totals.verified;
    m_totals.bytesVerified += size;
}

void RestoreProgress::Print(const char* action, const std::string& path,
                            std::optional<unsigned long long> size)
{
    if (m_settings.isQuiet || (!m_settings.isVerbose && !m_settings.isDryRun))
        return;
    if (m_settings.isJson) {
        std::string json =
            R"({"message_type":"verbose_status","action":")" + std::string(action) + R"(","item":)";
        Repo::JsonWriter(json).String(path);
        m_report.Out() << PrintableJson(json + ",\"size\":" + std::to_string(size.value_or(0)) + "}") << "\n";
        m_report.Out().Flush();
        return;
    }
    std::string line = action;
    line.resize(10, ' ');
    line += Printable(path) + (size ? " with size " + SizeText(*size) : "");
    m_report.Out() << line << "\n";
    m_report.Out().Flush();
}

std::string RestoreProgress::TotalsJson(const char* type) const
{
    std::string json;
    Repo::JsonWriter writer(json);
    const auto number = [&writer](const char* key, unsigned long long value) {
        writer.Key(key);
        writer.Number(value);
    };
    writer.BeginObject();
    writer.Key("message_type");
    writer.String(type);
    number("seconds_elapsed", SecondsSince(m_start));
    if (type == std::string_view("status")) {
        const double done = static_cast<double>(m_totals.bytesRestored + m_totals.bytesSkipped);
        char text[64];
        std::snprintf(text, sizeof(text), "%.6f",
                      m_totals.bytes == 0 ? 0 : done / static_cast<double>(m_totals.bytes));
        writer.Key("percent_done");
        writer.Raw(text);
    }
    number("total_files", m_totals.files);
    number("files_restored", m_totals.restored);
    number("files_skipped", m_totals.skipped);
    number("files_deleted", m_totals.deleted);
    number("total_bytes", m_totals.bytes);
    number("bytes_restored", m_totals.bytesRestored);
    number("bytes_skipped", m_totals.bytesSkipped);
    if (type == std::string_view("summary")) { // restic has no such numbers
        if (m_settings.isDryRun) {
            writer.Key("dry_run");
            writer.Bool(true);
            number("files_created", m_totals.created);
            number("bytes_created", m_totals.bytesCreated);
            number("files_replaced", m_totals.replaced);
            number("bytes_replaced", m_totals.bytesReplaced);
            number("directories_updated", m_totals.present);
        }
        if (m_settings.verifies && !m_settings.isDryRun) {
            number("files_verified", m_totals.verified);
            number("files_unverified", m_totals.unverified);
            number("bytes_verified", m_totals.bytesVerified);
        }
        number("entries_failed", m_report.GetFailed());
    }
    writer.EndObject();
    return json;
}

void RestoreProgress::ShowProgress(const std::string& path, unsigned long long more)
{
    if (m_settings.isJson) {
        if (!m_report.IsStatusDue(StatusInterval))
            return;
        m_report.Out() << TotalsJson("status") << "\n";
        m_report.Out().Flush();
        return;
    }
    m_report.Progress([&] {
        return ProgressFacts{.items = m_totals.restored + m_totals.skipped,
                             .unit = "files/dirs",
                             .bytes = m_totals.bytesRestored + m_totals.bytesSkipped + more,
                             .totalBytes = m_settings.expectedBytes,
                             .current = path};
    });
}

void RestoreProgress::ShowVerification(const std::string& path, unsigned long long more)
{
    if (m_settings.isJson) // restic has no such document
        return ShowProgress(path);
    m_report.Progress([&] {
        return ProgressFacts{.items = m_totals.verified,
                             .unit = "files verified",
                             .bytes = m_totals.bytesVerified + more,
                             .totalBytes = m_totals.bytes,
                             .current = path};
    });
}

void RestoreProgress::PrintSummary()
{
    const std::string text = (m_settings.isJson ? TotalsJson("summary") : SummaryText()) + "\n";
    if (m_settings.isDryRun) // which changes nothing, and is asked for what it prints
        m_report.PrintAndLog(text);
    else if (m_settings.isQuiet && !m_settings.isJson)
        m_report.LogSummary(text);
    else
        m_report.Summary("The restore is done", text);
}

std::string RestoreProgress::SummaryText() const
{
    const bool isAll = m_totals.restored == m_totals.files && m_totals.bytesRestored == m_totals.bytes;
    std::string text = m_settings.isDryRun ? "Summary: Would restore " : "Summary: Restored ";
    text += std::to_string(m_totals.restored) + (isAll ? "" : " / " + std::to_string(m_totals.files)) +
            " files/dirs (" + SizeText(m_totals.bytesRestored) +
            (isAll ? "" : " / " + SizeText(m_totals.bytes)) + ") in " + DurationText(SecondsSince(m_start));
    if (m_totals.skipped != 0)
        text += ", skipped " + std::to_string(m_totals.skipped) + " files/dirs " +
                SizeText(m_totals.bytesSkipped);
    if (m_totals.deleted != 0)
        text += ", deleted " + std::to_string(m_totals.deleted) + " files/dirs";
    if (m_settings.verifies && !m_settings.isDryRun)
        text +=
            ", verified " + std::to_string(m_totals.verified) + " files " + SizeText(m_totals.bytesVerified);
    if (m_totals.unverified != 0)
        text += ", " + std::to_string(m_totals.unverified) + " not verified";
    if (m_report.GetFailed() != 0)
        text += ", " + std::to_string(m_report.GetFailed()) + " failed";
    return text + (m_settings.isDryRun ? "\n" + ForeseenText() : "");
}

std::string RestoreProgress::ForeseenText() const
{
    return "Would create " + std::to_string(m_totals.created) + " (" + SizeText(m_totals.bytesCreated) +
           "), replace " + std::to_string(m_totals.replaced) + " (" + SizeText(m_totals.bytesReplaced) +
           "), keep " + std::to_string(m_totals.skipped) + ", remove " + std::to_string(m_totals.deleted) +
           ", change attributes of " + CountText(m_totals.present, "directory", "directories");
}

} // namespace Agent
