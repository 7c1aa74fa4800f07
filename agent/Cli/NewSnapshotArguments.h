// The options that all commands share which create a snapshot in a repository, and their output.
#pragma once

#include "agent/Backup/NewSnapshot.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/SaveArguments.h"

#include <functional>
#include <string>
#include <vector>

namespace Agent {

/// Options are stored in this object, which outlives the parser.
class NewSnapshotArguments
{
public:
    /// Adds the options of the repository and those of the snapshot.
    void AddTo(CLI::App& command);

    /// What was given. Raises UsageError for a value that can't be read.
    SnapshotSettings Get() const;

private:
    RepositoryArguments m_repository;
    SnapshotSettings m_settings;
    std::vector<std::string> m_tags;
    std::string m_time;
    std::string m_readConcurrency;
    SaveArguments m_save;
};

/// Calls `create`, and prints its progress and then the summary, which is `summaryOf` unless JSON was asked
/// for. Raises what `create` raises.
void CreateSnapshot(const SnapshotSettings& settings, Report& report,
                    const std::function<SnapshotOutcome(ISnapshotObserver& observer)>& create,
                    const std::function<std::string(const SnapshotOutcome& outcome)>& summaryOf);

} // namespace Agent
