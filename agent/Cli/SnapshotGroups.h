// Snapshots in groups, and as tables.
#pragma once

#include "agent/Repository/Snapshot.h"

#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Agent {

/// What the snapshots of a group have in common. A group is by what is there.
struct GroupKey
{
    std::optional<std::string> host;
    std::optional<std::vector<std::string>> paths; ///< sorted
    std::optional<std::vector<std::string>> tags;  ///< sorted

    /// "snapshots for (host [h], paths [/a, /b])", or "snapshots" if all are one group.
    std::string Describe() const;

    friend auto operator<=>(const GroupKey&, const GroupKey&) = default;
};

using SnapshotGroups = std::map<GroupKey, std::vector<Repo::StoredSnapshot>>;

/// By what snapshots are grouped.
class Grouping
{
public:
    /// The list is as typed: host, paths and tags, or several of them, separated by commas; without a word,
    /// all snapshots are one group. Raises UsageError for other words.
    explicit Grouping(const std::string& list);

    /// Each group is sorted from the oldest to the newest.
    SnapshotGroups Group(std::vector<Repo::StoredSnapshot> snapshots) const;
    bool IsByAnything() const { return m_isByHost || m_isByPaths || m_isByTags; }

private:
    GroupKey KeyOf(const Repo::Snapshot& snapshot) const;

    bool m_isByHost = false;
    bool m_isByPaths = false;
    bool m_isByTags = false;
};

/// What a table of snapshots shows.
struct SnapshotTable
{
    bool isCompact = false; ///< without reasons and paths
    /// For each snapshot, the lines of the column "Reasons". Empty for a table without that column.
    std::span<const std::vector<std::string>> reasons;

    /// A line of titles, the snapshots, and a line with their number. Sizes are shown if there are any.
    std::string ToText(std::span<const Repo::StoredSnapshot> snapshots) const;
};

/// The texts, sorted.
std::vector<std::string> Sorted(std::vector<std::string> texts);

} // namespace Agent
