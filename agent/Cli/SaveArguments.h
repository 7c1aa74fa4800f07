// The options of all commands that save packs, and the reading of options that have a variable.
#pragma once

#include "agent/Repository/SaveOptions.h"

#include <string>

namespace CLI {
class App;
}

namespace Agent {

/// Returns what was typed for an option, or otherwise the variable KBAGENT_variable or RESTIC_variable.
std::string OptionOr(const std::string& typed, const char* variable);
/// Returns the number. Raises UsageError, which names the option, for other text and other numbers.
unsigned int NumberOf(const std::string& text, const std::string& option, unsigned int least,
                      unsigned int most);

/// Options are stored in this object, which outlives the parser.
class SaveArguments
{
public:
    /// Adds --compression and --pack-size.
    void AddTo(CLI::App& command);
    /// What was given, or what the variables have. Raises UsageError for a value that can't be read.
    Repo::SaveOptions Get() const;

private:
    std::string m_compression;
    std::string m_packSize;
};

} // namespace Agent
