#include "agent/Backup/NewSnapshot.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Access/Unix/Process.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Host.h"

#include <algorithm>
#include <cstdio>

namespace Agent {

using Repo::Timestamp;
using std::chrono::steady_clock;

namespace {

Repo::SnapshotSummary Summarize(const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    Repo::SnapshotSummary summary;
    summary.backupStart = outcome.begin;
    summary.backupEnd = outcome.end;
    summary.filesNew = counts.filesNew;
    summary.filesChanged = counts.filesChanged;
    summary.filesUnmodified = counts.filesUnmodified;
    summary.dirsNew = counts.dirsNew;
    summary.dirsChanged = counts.dirsChanged;
    summary.dirsUnmodified = counts.dirsUnmodified;
    summary.dataBlobs = counts.data.blobs;
    summary.treeBlobs = counts.trees.blobs;
    summary.dataAdded = counts.data.bytes + counts.trees.bytes;
    summary.dataAddedPacked = counts.data.stored + counts.trees.stored;
    summary.totalFilesProcessed = counts.Files();
    summary.totalBytesProcessed = counts.bytes;
    return summary;
}

// "1:02:03" or "0:12".
std::string DurationText(double seconds)
{
    const auto whole = static_cast<unsigned long long>(seconds);
    char text[64];
    if (whole >= 3600)
        std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", whole / 3600, whole / 60 % 60, whole % 60);
    else
        std::snprintf(text, sizeof text, "%llu:%02llu", whole / 60, whole % 60);
    return text;
}

void AddNumber(std::string& json, const char* key, std::uint64_t number)
{
    json += (json.ends_with('{') ? "\"" : ",\"") + std::string(key) + "\":" + std::to_string(number);
}

std::string Fraction(double number)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", number);
    return text;
}

} // namespace

Repo::Snapshot MakeSnapshot(const SnapshotSettings& settings, const SnapshotOutcome& outcome)
{
    const ProcessIdentity identity = CurrentProcess();
    Repo::Snapshot snapshot;
    snapshot.time = settings.time.value_or(outcome.begin);
    snapshot.hostname = settings.host.empty() ? Krt::Environment::GetHostName().Bytes() : settings.host;
    snapshot.username = identity.userName;
    snapshot.uid = identity.uid;
    snapshot.gid = identity.gid;
    snapshot.tags = settings.tags;
    snapshot.programVersion = "kbagent " KBAGENT_VERSION;
    return snapshot;
}

void FinishSnapshot(Repo::Repository& repository, Repo::Snapshot snapshot, bool isSaved,
                    SnapshotOutcome& outcome)
{
    RaiseIfInterrupted();
    outcome.end = Timestamp::Now();
    snapshot.summary = Summarize(outcome);
    if (isSaved)
        outcome.id = repository.SaveText(Repo::FileKind::Snapshot, snapshot.ToJson());
    outcome.seconds = std::chrono::duration<double>(steady_clock::now() - outcome.start).count();
}

std::string AddedText(const SnapshotSettings& settings, const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    const auto rate =
        static_cast<unsigned long long>(static_cast<double>(counts.bytes) / std::max(outcome.seconds, 0.001));
    std::string text = settings.isDryRun ? "Would be added to the repository: " : "Added to the repository: ";
    text += ShortSize(counts.data.bytes + counts.trees.bytes);
    if (!settings.isDryRun)
        text += " (" + ShortSize(counts.data.stored + counts.trees.stored) + " stored)";
    text += "\nprocessed " + std::to_string(counts.Files()) + " files, " + ShortSize(counts.bytes) + " in " +
            DurationText(outcome.seconds) + ", " + ShortSize(rate) + "/s\n";
    if (outcome.id)
        text += "snapshot " + ShortId(*outcome.id) + " saved\n";
    else if (!settings.isDryRun)
        text += "skipped creating snapshot\n";
    return text;
}

std::string SummaryJson(const SnapshotSettings& settings, const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    std::string json = R"({"message_type":"summary")";
    if (settings.isDryRun)
        json += R"(,"dry_run":true)";
    AddNumber(json, "files_new", counts.filesNew);
    AddNumber(json, "files_changed", counts.filesChanged);
    AddNumber(json, "files_unmodified", counts.filesUnmodified);
    AddNumber(json, "dirs_new", counts.dirsNew);
    AddNumber(json, "dirs_changed", counts.dirsChanged);
    AddNumber(json, "dirs_unmodified", counts.dirsUnmodified);
    AddNumber(json, "data_blobs", counts.data.blobs);
    AddNumber(json, "tree_blobs", counts.trees.blobs);
    AddNumber(json, "data_added", counts.data.bytes + counts.trees.bytes);
    AddNumber(json, "data_added_packed", counts.data.stored + counts.trees.stored);
    AddNumber(json, "total_files_processed", counts.Files());
    AddNumber(json, "total_bytes_processed", counts.bytes);
    json += ",\"total_duration\":" + Fraction(outcome.seconds);
    json += ",\"backup_start\":\"" + outcome.begin.ToText() + "\"";
    json += ",\"backup_end\":\"" + outcome.end.ToText() + "\"";
    if (outcome.id)
        json += ",\"snapshot_id\":\"" + outcome.id->ToHex() + "\"";
    return json + "}";
}

std::string StatusJson(const SnapshotCounts& counts, std::uint64_t failed, double seconds)
{
    std::string json = R"({"message_type":"status")";
    AddNumber(json, "seconds_elapsed", static_cast<std::uint64_t>(seconds));
    json += R"(,"percent_done":0)"; // the total is not known
    AddNumber(json, "files_done", counts.Files());
    AddNumber(json, "bytes_done", counts.bytes);
    AddNumber(json, "error_count", failed);
    return json + "}";
}

} // namespace Agent
