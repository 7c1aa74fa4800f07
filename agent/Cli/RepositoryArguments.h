// The options that all commands on a repository share.
#pragma once

#include "agent/Access/RepositoryOptions.h"
#include "agent/Access/SnapshotChoice.h"

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Agent {

/// Which options a command has that lock the repository.
enum class LockOptions
{
    None,     ///< it takes no lock
    Required, ///< it writes, so it can't do without a lock
    Optional  ///< it only reads
};

/// Options of a command on a repository. They are stored in this object, which outlives the parser.
class RepositoryArguments
{
public:
    /// Adds --repo and the other options by which a repository is found, opened and locked, and --json,
    /// --quiet and --verbose.
    void AddTo(CLI::App& command, LockOptions lock = LockOptions::Optional);
    /// Adds --from-repo and the other options by which the source of a command is found and opened.
    void AddSourceTo(CLI::App& command);
    /// Adds --host, --tag and --path. `hostNames` are those of the first one.
    void AddSnapshotOptionsTo(CLI::App& command, const char* hostNames = "-H,--host");

    /// What was given. Raises UsageError for a duration, a limit or an extended option that can't be
    /// used.
    RepositoryOptions Get() const;
    /// The source. With the options of this command that are not of one repository.
    RepositoryOptions GetSource() const;
    const SnapshotOptions& GetSnapshotOptions() const { return m_snapshots; }
    bool IsJson() const { return m_options.isJson; }

private:
    void AddRemoteTo(CLI::App& command);
    void AddAccessTo(CLI::App& command, const std::string& prefix, const std::string& name,
                     RepositoryOptions& options);

    RepositoryOptions m_options;
    RepositoryOptions m_source;
    std::string m_retryLock;
    std::string m_uploadLimit;
    std::string m_downloadLimit;
    unsigned int m_verbosity = 0;
    SnapshotOptions m_snapshots;
};

/// The help on where a repository and its password come from.
extern const char* const RepositoryHelp;

/// JSON text with a line for each value, indented by two blanks a level.
std::string IndentJson(std::string_view json);

} // namespace Agent
