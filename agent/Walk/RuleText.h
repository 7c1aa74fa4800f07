// RuleText: the rules of a job as text, in words and in the job file.
#pragma once

#include "Backup/File/YSelectionPathDescriptor.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace Agent {

/// Returns a text such as "exclude names like '*.tmp' in /home and below". Not made printable.
std::string RulePhrase(const Backup::File::YSelectionPathDescriptor& rule);

/// A rule as a job file has it.
struct RuleSource
{
    std::string_view array; ///< "includes" or "excludes"
    std::size_t index = 0;  ///< in the array
    std::size_t line = 0;   ///< of the first byte, counted from 1
    std::string_view text;  ///< the JSON object, a part of the text of the file
};

/// Calls `visit` with each rule in the text of a job file, in the order of the file. Raises what JsonReader
/// raises for a text that is not a job, perhaps after some of its rules.
void VisitRuleSources(std::string_view jobText, const std::function<void(const RuleSource& rule)>& visit);

} // namespace Agent
