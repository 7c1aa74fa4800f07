#include "agent/Repository/Snapshot.h"

#include <algorithm>
#include <iterator>

namespace Agent::Repo {

namespace {

struct SummaryCount
{
    std::string_view key;
    std::uint64_t SnapshotSummary::*field;
};

constexpr SummaryCount SummaryCounts[] = {
    {"files_new", &SnapshotSummary::filesNew},
    {"files_changed", &SnapshotSummary::filesChanged},
    {"files_unmodified", &SnapshotSummary::filesUnmodified},
    {"dirs_new", &SnapshotSummary::dirsNew},
    {"dirs_changed", &SnapshotSummary::dirsChanged},
    {"dirs_unmodified", &SnapshotSummary::dirsUnmodified},
    {"data_blobs", &SnapshotSummary::dataBlobs},
    {"tree_blobs", &SnapshotSummary::treeBlobs},
    {"data_added", &SnapshotSummary::dataAdded},
    {"data_added_packed", &SnapshotSummary::dataAddedPacked},
    {"total_files_processed", &SnapshotSummary::totalFilesProcessed},
    {"total_bytes_processed", &SnapshotSummary::totalBytesProcessed},
};

SnapshotSummary ReadSummary(JsonReader& reader)
{
    SnapshotSummary summary;
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key)) {
        const auto* const count =
            std::find_if(std::begin(SummaryCounts), std::end(SummaryCounts),
                         [key](const SummaryCount& each) { return IsKey(key, each.key); });
        if (reader.IsNull())
            continue;
        if (count != std::end(SummaryCounts))
            summary.*count->field = reader.Unsigned();
        else if (IsKey(key, "backup_start"))
            summary.backupStart = reader.Time();
        else if (IsKey(key, "backup_end"))
            summary.backupEnd = reader.Time();
        else
            reader.Skip();
    }
    return summary;
}

void WriteSummary(const SnapshotSummary& summary, JsonWriter& writer)
{
    writer.BeginObject();
    writer.Key("backup_start");
    writer.Time(summary.backupStart);
    writer.Key("backup_end");
    writer.Time(summary.backupEnd);
    for (const SummaryCount& count : SummaryCounts) {
        writer.Key(count.key);
        writer.Number(summary.*count.field);
    }
    writer.EndObject();
}

bool IsKnown(std::string_view key)
{
    static constexpr std::string_view Keys[] = {
        "time", "parent",   "tree", "paths",    "hostname",        "username", "uid",
        "gid",  "excludes", "tags", "original", "program_version", "summary"};
    return std::any_of(std::begin(Keys), std::end(Keys),
                       [key](std::string_view known) { return IsKey(key, known); });
}

// Reads the value of a known member that is not null; returns false for another one.
bool ReadMember(JsonReader& reader, std::string_view key, Snapshot& snapshot)
{
    if (IsKey(key, "time"))
        snapshot.time = reader.Time();
    else if (IsKey(key, "parent"))
        snapshot.parent = reader.ReadId();
    else if (IsKey(key, "tree"))
        snapshot.tree = reader.ReadId();
    else if (IsKey(key, "paths"))
        reader.Strings(snapshot.paths);
    else if (IsKey(key, "hostname"))
        snapshot.hostname = reader.String();
    else if (IsKey(key, "username"))
        snapshot.username = reader.String();
    else if (IsKey(key, "uid"))
        snapshot.uid = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
    else if (IsKey(key, "gid"))
        snapshot.gid = static_cast<std::uint32_t>(reader.Unsigned(UINT32_MAX));
    else if (IsKey(key, "excludes"))
        reader.Strings(snapshot.excludes);
    else if (IsKey(key, "tags"))
        reader.Strings(snapshot.tags);
    else if (IsKey(key, "original"))
        snapshot.original = reader.ReadId();
    else if (IsKey(key, "program_version"))
        snapshot.programVersion = reader.String();
    else if (IsKey(key, "summary"))
        snapshot.summary = ReadSummary(reader);
    else
        return false;
    return true;
}

// Writes members, of which empty ones are left out.
class MemberWriter
{
public:
    explicit MemberWriter(JsonWriter& writer) : m_writer(writer) {}

    void OptionalId(std::string_view key, const std::optional<Id>& id)
    {
        if (!id)
            return;
        m_writer.Key(key);
        m_writer.WriteId(*id);
    }
    void Text(std::string_view key, const std::string& text)
    {
        if (text.empty())
            return;
        m_writer.Key(key);
        m_writer.String(text);
    }
    void Number(std::string_view key, std::uint32_t number)
    {
        if (number == 0)
            return;
        m_writer.Key(key);
        m_writer.Number(number);
    }
    void Texts(std::string_view key, const std::vector<std::string>& texts)
    {
        if (texts.empty())
            return;
        m_writer.Key(key);
        m_writer.Strings(texts);
    }

private:
    JsonWriter& m_writer;
};

bool Contains(const std::vector<std::string>& texts, const std::string& text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool ContainsAll(const std::vector<std::string>& texts, const std::vector<std::string>& wanted)
{
    return std::all_of(wanted.begin(), wanted.end(),
                       [&texts](const std::string& text) { return Contains(texts, text); });
}

} // namespace

Snapshot Snapshot::Parse(std::string_view json)
{
    Snapshot snapshot;
    bool hasTime = false;
    bool hasTree = false;
    JsonReader reader(json);
    std::string_view key;
    reader.BeginObject();
    while (reader.NextKey(key)) {
        const bool isTime = IsKey(key, "time");
        const bool isTree = IsKey(key, "tree");
        if (reader.IsNull()) {
            if (!IsKnown(key))
                snapshot.unknown.push_back({std::string(key), "null"});
            continue;
        }
        hasTime |= isTime;
        hasTree |= isTree;
        if (!ReadMember(reader, key, snapshot))
            reader.Keep(std::string(key), snapshot.unknown);
    }
    reader.End();
    JoinRepeated(snapshot.unknown);
    if (!hasTime || !hasTree)
        reader.RaiseDamaged("the snapshot has no time or no tree");
    return snapshot;
}

std::string Snapshot::ToJson() const
{
    std::string text;
    JsonWriter writer(text);
    MemberWriter members(writer);
    writer.BeginObject();
    writer.Key("time");
    writer.Time(time);
    members.OptionalId("parent", parent);
    writer.Key("tree");
    writer.WriteId(tree);
    writer.Key("paths");
    writer.Strings(paths);
    members.Text("hostname", hostname);
    members.Text("username", username);
    members.Number("uid", uid);
    members.Number("gid", gid);
    members.Texts("excludes", excludes);
    members.Texts("tags", tags);
    members.OptionalId("original", original);
    members.Text("program_version", programVersion);
    if (summary) {
        writer.Key("summary");
        WriteSummary(*summary, writer);
    }
    writer.Members(unknown);
    writer.EndObject();
    return text;
}

bool SnapshotFilter::Matches(const Snapshot& snapshot) const
{
    const auto hasTags = [&snapshot](const std::vector<std::string>& wanted) {
        return wanted.empty() ? snapshot.tags.empty() : ContainsAll(snapshot.tags, wanted);
    };
    return (hosts.empty() || Contains(hosts, snapshot.hostname)) &&
           (tags.empty() || std::any_of(tags.begin(), tags.end(), hasTags)) &&
           ContainsAll(snapshot.paths, paths);
}

} // namespace Agent::Repo
