// The options of a prune, for all commands that have it, and the output of one.
#pragma once

#include "agent/Access/Session.h"
#include "agent/Cli/SaveArguments.h"
#include "agent/Prune/PrunePlan.h"

#include <string>

namespace CLI {
class App;
}

namespace Agent {

/// Options are stored in this object, which outlives the parser.
class PruneArguments
{
public:
    /// Adds --max-unused and the other options that decide what is repacked, and how.
    void AddTo(CLI::App& command);
    /// What was given. Raises UsageError for a value that can't be read, and if a prune would repack again
    /// what it has repacked.
    PruneOptions Get() const;

private:
    std::string m_maxUnused = "5%";
    std::string m_maxRepackSize;
    std::string m_smallerThan;
    SaveArguments m_save;
    PruneOptions m_options;
    bool m_repacksSmall = false;
};

/// Prunes the repository of the session, which has an exclusive lock unless nothing is changed, and prints
/// what is done.
void PruneAndPrint(Session& session, const PruneOptions& options);

} // namespace Agent
