#include "agent/Cli/Command.h"

#include "agent/Cli/NodeText.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/SnapshotGroups.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>

namespace Agent {

using Repo::StoredSnapshot;

namespace {

using Group = std::vector<StoredSnapshot>;

class SnapshotsCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void KeepLatest(Group& group) const;

    RepositoryArguments m_repository;
    CLI::Option* m_ids = nullptr;
    std::string m_groupBy;
    unsigned int m_latest = 0;
    bool m_compact = false;
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

std::string JsonOf(const SnapshotGroups& groups, bool isGrouped)
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
    if (!isGrouped) {
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

void SnapshotsCommand::Run(Report& report)
{
    const Grouping grouping(m_groupBy);
    Session session(m_repository.Get(), report);
    SnapshotGroups groups =
        grouping.Group(ChooseSnapshots(session, PathsOf(m_ids), m_repository.GetSnapshotOptions()));
    for (auto& [key, group] : groups)
        KeepLatest(group);
    if (m_repository.IsJson()) {
        report.Out() << PrintableJson(JsonOf(groups, grouping.IsByAnything())) << "\n";
        return;
    }
    const SnapshotTable table{.isCompact = m_compact, .reasons = {}};
    for (const auto& [key, group] : groups)
        report.Out() << (grouping.IsByAnything() ? key.Describe() + ":\n" : "") << table.ToText(group);
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

} // namespace

std::unique_ptr<ICommand> MakeSnapshotsCommand()
{
    return std::make_unique<SnapshotsCommand>();
}

} // namespace Agent
