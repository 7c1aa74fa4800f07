// JobFile: the rules of a job file in the order of the file, and how a job file is written.
#pragma once

#include "Backup/File/YSelectionManager.h"
#include "Backup/File/YSelectionPathDescriptor.h"

#include "Krt/JSON/YObject.h"

#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// A rule as a job file has it.
struct JobRule
{
    Backup::File::YSelectionPathDescriptor rule;
    std::string_view array; ///< "includes" or "excludes"
    std::size_t index = 0;  ///< in the array
    std::size_t line = 0;   ///< of its first byte, counted from 1

    /// Returns a text such as "includes[2]".
    std::string Label() const { return std::string(array) + "[" + std::to_string(index) + "]"; }
};

/// The lines on which the rules of a job file begin.
class RuleLines
{
public:
    /// The text is valid JSON. If it is not a job, no rule has a line.
    explicit RuleLines(std::string_view text);
    /// Returns 0 for an unknown rule.
    std::size_t Of(std::string_view array, std::size_t index) const;

private:
    std::vector<std::size_t> m_includes;
    std::vector<std::size_t> m_excludes;
};

/// Returns the rules, includes first. Raises what reading the rules raises, and NotFound for a missing array.
std::vector<JobRule> RulesOf(const Krt::JSON::YObject& job, const RuleLines& lines);
/// Reads a job file, and returns its rules. Raises what ReadJobFile raises, and InvalidArgument for a file
/// that a backup would refuse.
std::vector<JobRule> LoadRules(const std::string& jobFile);

/// Returns true if the rules contain this one, which was not covered by another one.
bool HasRule(const Backup::File::YSelectionManager& rules,
             const Backup::File::YSelectionPathDescriptor& rule);

/// Writes a job file, and replaces it at once when the new one is complete and durable. The mode of a file
/// that exists stays, and a new one has the mode 0644. A symlink stays, and what it leads to is replaced.
/// Raises InvalidArgument for a file that exists unless `replaces` is true, and the operating system's error.
void SaveJob(const std::string& jobFile, const Backup::File::YSelectionManager& rules, bool replaces);

} // namespace Agent
