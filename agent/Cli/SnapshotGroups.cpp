#include "agent/Cli/SnapshotGroups.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Cli/TextTable.h"
#include "agent/Run/Output.h"
#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include <algorithm>
#include <sstream>

namespace Agent {

using Repo::Snapshot;
using Repo::StoredSnapshot;

namespace {

std::string LineOf(const std::vector<std::string>& texts, std::size_t line)
{
    return line < texts.size() ? Printable(texts[line]) : "";
}

} // namespace

std::vector<std::string> Sorted(std::vector<std::string> texts)
{
    std::sort(texts.begin(), texts.end());
    return texts;
}

std::string GroupKey::Describe() const
{
    std::vector<std::string> parts;
    if (host)
        parts.push_back("host [" + Printable(*host) + "]");
    if (tags)
        parts.push_back("tags [" + Printable(Joined(*tags, ", ")) + "]");
    if (paths)
        parts.push_back("paths [" + Printable(Joined(*paths, ", ")) + "]");
    return parts.empty() ? "snapshots" : "snapshots for (" + Joined(parts, ", ") + ")";
}

Grouping::Grouping(const std::string& list)
{
    for (std::istringstream words(list); !words.eof();) {
        std::string word;
        std::getline(words, word, ',');
        bool* const flag = word == "host"    ? &m_isByHost
                           : word == "paths" ? &m_isByPaths
                           : word == "tags"  ? &m_isByTags
                                             : nullptr;
        if (flag == nullptr && !word.empty())
            throw UsageError("--group-by takes host, paths and tags: '" + word + "'");
        if (flag != nullptr)
            *flag = true;
    }
}

GroupKey Grouping::KeyOf(const Snapshot& snapshot) const
{
    GroupKey key;
    if (m_isByHost)
        key.host = snapshot.hostname;
    if (m_isByPaths)
        key.paths = Sorted(snapshot.paths);
    if (m_isByTags)
        key.tags = Sorted(snapshot.tags);
    return key;
}

SnapshotGroups Grouping::Group(std::vector<StoredSnapshot> snapshots) const
{
    SnapshotGroups groups;
    for (StoredSnapshot& stored : snapshots)
        groups[KeyOf(stored.snapshot)].push_back(std::move(stored));
    for (auto& [key, group] : groups) {
        std::stable_sort(group.begin(), group.end(),
                         [](const auto& a, const auto& b) { return a.snapshot.time < b.snapshot.time; });
    }
    return groups;
}

std::string SnapshotTable::ToText(std::span<const StoredSnapshot> snapshots) const
{
    const bool showsReasons = !isCompact && !reasons.empty();
    const bool showsSizes = std::any_of(snapshots.begin(), snapshots.end(), [](const StoredSnapshot& each) {
        return each.snapshot.summary.has_value();
    });
    std::vector<TextColumn> columns{{"ID"}, {"Time"}, {"Host"}, {"Tags"}};
    if (showsReasons)
        columns.push_back({"Reasons"});
    if (!isCompact)
        columns.push_back({.title = "Paths", .mayBeCut = true});
    if (showsSizes)
        columns.push_back({.title = "Size", .alignsRight = true});
    std::vector<TextRow> rows;
    for (std::size_t i = 0; i < snapshots.size(); ++i) {
        const Snapshot& snapshot = snapshots[i].snapshot;
        const std::size_t lines =
            isCompact
                ? 1
                : std::max({std::size_t{1}, snapshot.paths.size(), showsReasons ? reasons[i].size() : 0});
        for (std::size_t line = 0; line < lines; ++line) {
            TextRow row(4);
            if (line == 0)
                row = {ShortId(snapshots[i].id), LocalTime(snapshot.time), Printable(snapshot.hostname),
                       Printable(Joined(snapshot.tags, ","))};
            if (showsReasons)
                row.push_back(LineOf(reasons[i], line));
            if (!isCompact)
                row.push_back(LineOf(snapshot.paths, line));
            if (showsSizes)
                row.push_back(line == 0 && snapshot.summary ? ShortSize(snapshot.summary->totalBytesProcessed)
                                                            : "");
            rows.push_back(std::move(row));
        }
    }
    return TableText(columns, std::move(rows), OutputWidth()) +
           CountText(snapshots.size(), "snapshot", "snapshots") + "\n";
}

} // namespace Agent
