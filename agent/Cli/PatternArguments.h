// Options that give patterns of entries.
#pragma once

#include "agent/Restore/Patterns.h"

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Agent {

/// They are stored in this object, which outlives the parser.
class PatternArguments
{
public:
    /// Adds --NAME, also with the letter, --iNAME, --NAME-file and --iNAME-file.
    void AddTo(CLI::App& command, char letter, const std::string& name, const std::string& description);

    /// All patterns. Raises UsageError for one that is wrong, and what reading a file raises.
    Patterns Get() const;
    bool HasFiles() const { return !m_files.empty() || !m_filesOfAnyCase.empty(); }

private:
    std::vector<std::string> m_patterns;
    std::vector<std::string> m_patternsOfAnyCase;
    std::vector<std::string> m_files;
    std::vector<std::string> m_filesOfAnyCase;
};

/// A list of patterns without files. Raises UsageError for one that is wrong.
Patterns PatternsOf(const std::vector<std::string>& patterns);

} // namespace Agent
