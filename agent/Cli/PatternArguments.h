// PatternArguments: options that take patterns of paths, on the command line or in files.
#pragma once

#include "agent/Walk/Patterns.h"

#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace Agent {

/// Options are stored in this object, which outlives the parser.
class PatternArguments
{
public:
    /// Adds --NAME, --iNAME, --NAME-file and --iNAME-file. `letter` is that of the short option of --NAME,
    /// and `description` its meaning.
    void AddTo(CLI::App& command, char letter, const std::string& name, const std::string& description);
    /// Returns the patterns of the command line, then those of the files. Raises UsageError for one that is
    /// not well-formed, and what ReadListFile raises.
    Patterns Get() const;
    bool HasFiles() const { return !files.empty() || !filesOfAnyCase.empty(); }

    std::vector<std::string> patterns, patternsOfAnyCase;
    std::vector<std::string> files, filesOfAnyCase;

private:
    std::string m_name; // of the option
};

/// Returns patterns of an option. Raises UsageError that names it for one that is not well-formed.
Patterns PatternsOf(const std::vector<std::string>& patterns, const std::string& option);

} // namespace Agent
