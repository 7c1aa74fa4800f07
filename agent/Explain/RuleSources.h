// RuleSources: finds the rules of a selection tree in the text of the job file that they were read from.
#pragma once

#include "agent/Walk/RuleText.h"

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Agent {

class RuleSources
{
public:
    /// No rule has a source.
    RuleSources() = default;
    /// The text is that of a job file that was loaded without an error.
    RuleSources(std::string fileName, std::string text);
    RuleSources(const RuleSources&) = delete;
    RuleSources& operator=(const RuleSources&) = delete;

    /// Returns the first rule of the file that equals this one, or nullptr for a rule of another origin. The
    /// result is valid as long as this object.
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

    std::string_view IndentationOf(const RuleSource& source) const;

    std::string m_fileName;
    std::string m_text;
    std::unordered_multimap<std::string, Spot> m_byPath; // keys are normalized
};

} // namespace Agent
