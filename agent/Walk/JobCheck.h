// Finds mistakes in a job file. The library accepts such a document, and the backup would silently leave
// files out or store too many. Only the document is checked, not the file system.
#pragma once

#include "Krt/JSON/YObject.h"

#include <functional>
#include <string>
#include <string_view>

namespace Agent {

struct JobFinding
{
    bool isError;     ///< the job must not be run; otherwise the finding is a warning
    std::string text; ///< the location in the document, such as "includes[2].descriptor", and the mistake
    std::string_view array; ///< the array of the rule; empty if the finding is not about a rule
    std::size_t index = 0;  ///< of the rule in the array
};

/// Calls `visit` with each finding, in the order of the document. A rule that the library cannot read is an
/// error with the library's text. A missing array is not a finding: YSelectionManager::FromJSON raises an
/// error for it.
void CheckJob(const Krt::JSON::YObject& job, const std::function<void(const JobFinding&)>& visit);

} // namespace Agent
