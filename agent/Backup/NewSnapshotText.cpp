#include "agent/Backup/NewSnapshotText.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Repository/Json.h"
#include "agent/Run/Text.h"

#include <algorithm>
#include <cstdio>

namespace Agent {

namespace {

constexpr const char* Actions[] = {"new", "modified", "unchanged"}; // by Change

// Writes a document of restic. The type comes first.
class Document
{
public:
    explicit Document(const char* type)
    {
        m_writer.BeginObject();
        Text("message_type", type);
    }

    void Text(const char* key, std::string_view text)
    {
        m_writer.Key(key);
        m_writer.String(text);
    }
    void Number(const char* key, std::uint64_t number)
    {
        m_writer.Key(key);
        m_writer.Number(number);
    }
    void NumberUnlessZero(const char* key, std::uint64_t number)
    {
        if (number != 0)
            Number(key, number);
    }
    void Fraction(const char* key, double number)
    {
        char text[64];
        std::snprintf(text, sizeof(text), "%.9g", number);
        m_writer.Key(key);
        m_writer.Raw(text);
    }
    void True(const char* key)
    {
        m_writer.Key(key);
        m_writer.Bool(true);
    }
    void Begin(const char* key)
    {
        m_writer.Key(key);
        m_writer.BeginObject();
    }
    void BeginItem() { m_writer.BeginObject(); }
    void End() { m_writer.EndObject(); }
    void BeginItems(const char* key)
    {
        m_writer.Key(key);
        m_writer.BeginArray();
    }
    void EndItems() { m_writer.EndArray(); }
    void Texts(const char* key, const std::vector<std::string>& texts)
    {
        m_writer.Key(key);
        m_writer.Strings(texts);
    }
    std::string Finish()
    {
        m_writer.EndObject();
        return PrintableJson(m_json);
    }

private:
    std::string m_json;
    Repo::JsonWriter m_writer{m_json};
};

void AddItem(Document& document, const char* action, const StoredItem& item, std::uint64_t files)
{
    document.Text("action", action);
    document.Text("item", item.path);
    document.Fraction("duration", item.seconds);
    document.Number("data_size", item.dataAdded);
    document.Number("data_size_in_repo", item.dataPacked);
    document.Number("metadata_size", item.treeAdded);
    document.Number("metadata_size_in_repo", item.treePacked);
    document.Number("total_files", files);
}

void AddLeftOut(Document& document, const char* key, const LeftOut& counts)
{
    document.Begin(key);
    document.Number("others", counts.others);
    document.Number("bytes", counts.bytes);
    document.Number("dirs", counts.dirs);
    document.End();
}

// What only a dry run finds out. restic has no such members.
void AddForeseen(Document& document, const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    document.Number("bytes_new", counts.bytesNew);
    document.Number("bytes_changed", counts.bytesChanged);
    document.Number("bytes_unmodified", counts.bytesUnmodified);
    AddLeftOut(document, "left_out_by_rules", counts.byRules);
    AddLeftOut(document, "left_out_by_options", counts.byOptions);
    document.BeginItems("largest");
    for (const StoredItem& item : outcome.largest) {
        document.BeginItem();
        document.Text("item", item.path);
        document.Number("data_size", item.dataAdded);
        document.End();
    }
    document.EndItems();
}

} // namespace

std::string AddedText(const SnapshotSettings& settings, const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    const auto rate =
        static_cast<unsigned long long>(static_cast<double>(counts.bytes) / std::max(outcome.seconds, 0.001));
    std::string text;
    if (outcome.repositoryFailures != 0)
        text = "Failures of the repository: " + std::to_string(outcome.repositoryFailures) + "\n";
    text += settings.isDryRun ? "Would be added to the repository: " : "Added to the repository: ";
    text += ShortSize(counts.data.bytes + counts.trees.bytes);
    if (!settings.isDryRun)
        text += " (" + ShortSize(counts.data.stored + counts.trees.stored) + " stored)";
    text += "\nprocessed " + std::to_string(counts.Files()) + " files, " + ShortSize(counts.bytes) + " in " +
            DurationText(static_cast<unsigned long long>(outcome.seconds)) + ", " + ShortSize(rate) + "/s\n";
    if (outcome.id)
        text += "snapshot " + ShortId(*outcome.id) + " saved\n";
    else if (!settings.isDryRun)
        text += "skipped creating snapshot\n";
    return text;
}

std::string SummaryJson(const SnapshotSettings& settings, const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    Document document("summary");
    document.Number("files_new", counts.filesNew);
    document.Number("files_changed", counts.filesChanged);
    document.Number("files_unmodified", counts.filesUnmodified);
    document.Number("dirs_new", counts.dirsNew);
    document.Number("dirs_changed", counts.dirsChanged);
    document.Number("dirs_unmodified", counts.dirsUnmodified);
    document.Number("data_blobs", counts.data.blobs);
    document.Number("tree_blobs", counts.trees.blobs);
    document.Number("data_added", counts.data.bytes + counts.trees.bytes);
    document.Number("data_added_packed", counts.data.stored + counts.trees.stored);
    document.Number("total_files_processed", counts.Files());
    document.Number("total_bytes_processed", counts.bytes);
    document.Fraction("total_duration", outcome.seconds);
    document.Text("backup_start", outcome.begin.ToText());
    document.Text("backup_end", outcome.end.ToText());
    if (outcome.id)
        document.Text("snapshot_id", outcome.id->ToHex());
    if (settings.isDryRun) {
        document.True("dry_run");
        AddForeseen(document, outcome);
    }
    return document.Finish();
}

std::string StatusJson(const SnapshotProgress& progress)
{
    const std::uint64_t done = progress.counts.bytes;
    const std::uint64_t total = std::max(progress.totals.bytes, progress.totals.isComplete ? done : 0);
    const double part =
        total == 0 ? 0 : std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
    Document document("status");
    document.NumberUnlessZero("seconds_elapsed", static_cast<std::uint64_t>(progress.seconds));
    if (progress.totals.isComplete && done != 0)
        document.NumberUnlessZero("seconds_remaining",
                                  static_cast<std::uint64_t>(progress.seconds * (1 - part) / part));
    document.Fraction("percent_done", part);
    document.NumberUnlessZero("total_files", progress.totals.files);
    document.NumberUnlessZero("files_done", progress.counts.Files());
    document.NumberUnlessZero("total_bytes", progress.totals.bytes);
    document.NumberUnlessZero("bytes_done", done);
    document.NumberUnlessZero("error_count", progress.failed);
    if (!progress.currentFiles.empty())
        document.Texts("current_files", progress.currentFiles);
    return document.Finish();
}

std::string StoredText(const StoredItem& item)
{
    std::string text = Actions[static_cast<std::size_t>(item.change)];
    text.resize(10, ' ');
    text += Printable(item.path) + " (" + ShortSize(item.dataAdded) + " added";
    return text + (item.treeAdded == 0 ? ")" : ", " + ShortSize(item.treeAdded) + " metadata)");
}

std::string StoredJson(const StoredItem& item)
{
    Document document("verbose_status");
    AddItem(document, Actions[static_cast<std::size_t>(item.change)], item, 0);
    return document.Finish();
}

std::string ScanJson(const ScanTotals& totals)
{
    StoredItem all;
    all.seconds = totals.seconds;
    all.dataAdded = totals.bytes;
    Document document("verbose_status");
    AddItem(document, "scan_finished", all, totals.files);
    return document.Finish();
}

} // namespace Agent
