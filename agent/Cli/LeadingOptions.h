// Options of repositories that precede the command, as users of restic type them.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Agent {

/// Returns the command of this name below `parent`, or nullptr.
const CLI::App* FindCommand(const CLI::App& parent, const std::string& name);

/// Adds the options of repositories to the program, for its help. Those that are given there have no effect.
void AddLeadingOptions(CLI::App& program);

/// Moves the options of repositories that precede the command, or its own command as in "key list", after it,
/// where its parser expects them. `arguments` are in reverse order, as the parser expects them. Raises
/// UsageError if the command does not have such an option.
void MoveLeadingOptions(const CLI::App& program, std::vector<std::string>& arguments);

/// What to add to the message for an option that the command does not have; empty if restic does not have it
/// either.
std::string HintForResticOption(const std::string& option);
/// What to add to the message for an unknown command; empty if restic does not have it either.
std::string HintForResticCommand(const std::string& command);

} // namespace Agent
