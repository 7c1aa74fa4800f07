// PatternRule: the rule of a job that leaves out what a pattern of restic leaves out.
#pragma once

#include "Backup/File/YSelectionPathDescriptor.h"

#include <optional>
#include <string>

namespace Agent {

struct PatternRule
{
    std::optional<Backup::File::YSelectionPathDescriptor> rule;
    std::string reason; ///< why there is no rule
};

/// Converts a pattern, as in "*.tmp" or "/home/ann/cache". Rules that `isReported` are counted and printed.
PatternRule RuleOfPattern(const std::string& pattern, bool ignoresCase, bool isReported);

} // namespace Agent
