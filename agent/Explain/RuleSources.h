// RuleSources: finds the rules of a selection tree in the text of the job file that they were read from.
#pragma once

#include "Backup/File/YSelectionPathDescriptor.h"

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Agent {

/// A rule as a job file has it.
struct RuleSource
{
    std::string array;     ///< "includes" or "excludes"
    std::size_t index = 0; ///< in the array
    std::size_t line = 0;  ///< of the first byte, counted from 1
    std::string_view text; ///< valid as long as the RuleSources
};

class RuleSources
{
public:
    /// No rule has a source.
    RuleSources() = default;
    /// The text is that of a job file that was loaded without an error.
    RuleSources(std::string fileName, std::string text);
    RuleSources(const RuleSources&) = delete;
    RuleSources& operator=(const RuleSources&) = delete;

    /// Returns the first rule of the file that equals this one, or nullptr for a rule of another origin.
    const RuleSource* Find(const Backup::File::YSelectionPathDescriptor& rule);
    /// Returns the lines of a rule, without the indentation of its first one.
    std::vector<std::string_view> LinesOf(const RuleSource& source) const;
    const std::string& FileName() const { return m_fileName; }

private:
    struct Spot
    {
        RuleSource source;
        std::optional<Backup::File::YSelectionDescriptor> rule; // read when it is needed
    };

    void ReadArray(std::string_view array, std::string_view text);
    std::string_view IndentationOf(const RuleSource& source) const;

    std::string m_fileName;
    std::string m_text;
    std::size_t m_counted = 0; // bytes of the text whose lines were counted
    std::size_t m_line = 1;    // of the byte after those
    std::unordered_multimap<std::string, Spot> m_byPlace;
};

} // namespace Agent
