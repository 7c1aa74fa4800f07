#include "agent/Cli/Command.h"

#include "agent/Cli/NodeText.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/TextTable.h"
#include "agent/Run/Output.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>
#include <set>

namespace Agent {

using Repo::StoredSnapshot;

namespace {

std::vector<std::string> Sorted(std::vector<std::string> texts)
{
    std::sort(texts.begin(), texts.end());
    return texts;
}

// What the snapshots of a group have in common.
struct GroupKey
{
    std::optional<std::string> host;
    std::optional<std::vector<std::string>> paths; // sorted
    std::optional<std::vector<std::string>> tags;  // sorted

    friend auto operator<=>(const GroupKey&, const GroupKey&) = default;
};

using Group = std::vector<StoredSnapshot>;

class SnapshotsCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    GroupKey KeyOf(const StoredSnapshot& stored) const;
    void KeepLatest(Group& group) const;
    std::string TextOf(const GroupKey& key, const Group& group) const;
    std::string JsonOf(const std::map<GroupKey, Group>& groups) const;
    TextRow RowOf(const StoredSnapshot& stored, std::size_t line) const;
    bool IsGrouped() const { return m_groupsByHost || m_groupsByPaths || m_groupsByTags; }

    RepositoryArguments m_repository;
    CLI::Option* m_ids = nullptr;
    std::string m_groupBy;
    unsigned int m_latest = 0;
    bool m_compact = false;
    bool m_groupsByHost = false;
    bool m_groupsByPaths = false;
    bool m_groupsByTags = false;
};

CLI::App* SnapshotsCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("snapshots", "List the snapshots of a repository");
    m_repository.AddTo(*command);
    m_repository.AddSnapshotOptionsTo(*command);
    command->add_flag("-c,--compact", m_compact, "Leave the paths out");
    command
        ->add_option("-g,--group-by", m_groupBy,
                     "Group by host, paths or tags, or several of them, as in host,tags")
        ->type_name("LIST");
    command->add_option("--latest", m_latest, "List only the newest snapshots of each host and list of paths")
        ->type_name("N");
    m_ids = AddPathArguments(*command, "List only these snapshots: first digits of IDs, or latest", "ID");
    command->footer(std::string(RepositoryHelp) + "Example: kbagent snapshots --repo /backup/repository");
    return command;
}

void SnapshotsCommand::Run(Report& report)
{
    for (std::istringstream words(m_groupBy); !words.eof();) {
        std::string word;
        std::getline(words, word, ',');
        bool* const flag = word == "host"    ? &m_groupsByHost
                           : word == "paths" ? &m_groupsByPaths
                           : word == "tags"  ? &m_groupsByTags
                                             : nullptr;
        if (flag == nullptr && !word.empty())
            throw UsageError("--group-by takes host, paths and tags: '" + word + "'");
        if (flag != nullptr)
            *flag = true;
    }
    Session session(m_repository.Get(), report);
    std::map<GroupKey, Group> groups;
    for (StoredSnapshot& stored : ChooseSnapshots(session, PathsOf(m_ids), m_repository.GetSnapshotOptions()))
        groups[KeyOf(stored)].push_back(std::move(stored));
    for (auto& [key, group] : groups) {
        std::stable_sort(group.begin(), group.end(),
                         [](const auto& a, const auto& b) { return a.snapshot.time < b.snapshot.time; });
        KeepLatest(group);
    }
    if (m_repository.IsJson()) {
        report.Out() << PrintableJson(JsonOf(groups)) << "\n";
        return;
    }
    for (const auto& [key, group] : groups)
        report.Out() << TextOf(key, group);
}

GroupKey SnapshotsCommand::KeyOf(const StoredSnapshot& stored) const
{
    GroupKey key;
    if (m_groupsByHost)
        key.host = stored.snapshot.hostname;
    if (m_groupsByPaths)
        key.paths = Sorted(stored.snapshot.paths);
    if (m_groupsByTags)
        key.tags = Sorted(stored.snapshot.tags);
    return key;
}

void SnapshotsCommand::KeepLatest(Group& group) const
{
    if (m_latest == 0)
        return;
    std::map<std::pair<std::string, std::vector<std::string>>, unsigned int> counts;
    Group kept;
    for (auto stored = group.rbegin(); stored != group.rend(); ++stored) {
        if (++counts[{stored->snapshot.hostname, Sorted(stored->snapshot.paths)}] <= m_latest)
            kept.push_back(std::move(*stored));
    }
    std::reverse(kept.begin(), kept.end());
    group = std::move(kept);
}

std::string Joined(const std::vector<std::string>& texts, const char* separator)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : separator) + text;
    return all;
}

TextRow SnapshotsCommand::RowOf(const StoredSnapshot& stored, std::size_t line) const
{
    const Repo::Snapshot& snapshot = stored.snapshot;
    TextRow row(5);
    if (line == 0)
        row = {ShortId(stored.id), LocalTime(snapshot.time), Printable(snapshot.hostname),
               Printable(Joined(snapshot.tags, ",")), ""};
    if (!m_compact && line < snapshot.paths.size())
        row[4] = Printable(snapshot.paths[line]);
    row.push_back(line == 0 && snapshot.summary ? ShortSize(snapshot.summary->totalBytesProcessed) : "");
    return row;
}

std::string SnapshotsCommand::TextOf(const GroupKey& key, const Group& group) const
{
    std::vector<TextRow> rows;
    for (const StoredSnapshot& stored : group) {
        const std::size_t lines = m_compact ? 1 : std::max<std::size_t>(1, stored.snapshot.paths.size());
        for (std::size_t line = 0; line < lines; ++line)
            rows.push_back(RowOf(stored, line));
    }
    std::string text;
    if (IsGrouped()) {
        std::vector<std::string> parts;
        if (key.host)
            parts.push_back("host [" + Printable(*key.host) + "]");
        if (key.tags)
            parts.push_back("tags [" + Printable(Joined(*key.tags, ", ")) + "]");
        if (key.paths)
            parts.push_back("paths [" + Printable(Joined(*key.paths, ", ")) + "]");
        text = "snapshots for (" + Joined(parts, ", ") + "):\n";
    }
    std::vector<TextColumn> columns{
        {"ID"}, {"Time"}, {"Host"}, {"Tags"}, {.title = m_compact ? "" : "Paths", .mayBeCut = true}};
    const bool hasSizes = std::any_of(group.begin(), group.end(), [](const StoredSnapshot& stored) {
        return stored.snapshot.summary.has_value();
    });
    if (hasSizes)
        columns.push_back({.title = "Size", .alignsRight = true});
    for (TextRow& row : rows)
        row.resize(columns.size());
    return text + TableText(columns, std::move(rows), OutputWidth()) + std::to_string(group.size()) +
           (group.size() == 1 ? " snapshot\n" : " snapshots\n");
}

std::string SnapshotsCommand::JsonOf(const std::map<GroupKey, Group>& groups) const
{
    std::string json;
    Repo::JsonWriter writer(json);
    const auto list = [&](const Group& group) {
        writer.BeginArray();
        for (const StoredSnapshot& stored : group)
            writer.Raw(SnapshotJson(stored, false));
        writer.EndArray();
    };
    const auto strings = [&](const char* key, const std::optional<std::vector<std::string>>& texts) {
        writer.Key(key);
        texts && !texts->empty() ? writer.Strings(*texts) : writer.Null();
    };
    if (!IsGrouped()) {
        list(groups.empty() ? Group() : groups.begin()->second);
        return json;
    }
    writer.BeginArray();
    for (const auto& [key, group] : groups) {
        writer.BeginObject();
        writer.Key("group_key");
        writer.BeginObject();
        writer.Key("hostname");
        writer.String(key.host.value_or(""));
        strings("paths", key.paths);
        strings("tags", key.tags);
        writer.EndObject();
        writer.Key("snapshots");
        list(group);
        writer.EndObject();
    }
    writer.EndArray();
    return json;
}

} // namespace

std::unique_ptr<ICommand> MakeSnapshotsCommand()
{
    return std::make_unique<SnapshotsCommand>();
}

} // namespace Agent
