// JobReview: finds all mistakes in a job file that can be found without a backup: those of JobCheck.h, those
// of paths, and rules that have no effect because of other rules.
#pragma once

#include "agent/Job/JobFile.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Agent {

/// What was found.
struct ReviewFinding
{
    enum class Level
    {
        Error,   ///< a backup refuses the job
        Warning, ///< probably not what was meant
        Note     ///< a consequence of the rules that may not be known
    };
    Level level;
    std::size_t line = 0; ///< of the rule in the file; 0 if it is unknown
    std::string label;    ///< of the rule, such as "includes[2]"; empty for none
    std::string text;
};

/// The result for one job file.
struct JobReview
{
    std::vector<ReviewFinding> findings; ///< errors; or warnings in the order of the rules, then notes
    std::size_t includes = 0;            ///< rules; 0 if there are errors
    std::size_t excludes = 0;

    /// Returns true if there is an error or a warning.
    bool HasMistakes() const;
};

/// Reviews the text of a job file. Texts of the findings are not made printable.
JobReview ReviewJob(const std::string& text);

} // namespace Agent
