// Finds what a job file cannot mean as it is written. The library reads such a document without an objection,
// and the backup would silently leave files out or store too many. The check reads the document alone, not
// the file system.
#pragma once

#include "Krt/JSON/YObject.h"

#include <functional>
#include <string>

namespace Agent {

struct JobFinding
{
    bool isError; ///< the job must not be run; otherwise the finding is a warning
    std::string
        text; ///< the place in the document, such as "includes[2].descriptor", and what is wrong there
};

/// Calls `visit` with each finding, in the order of the document. A rule that the library can't read is an
/// error, whose text is the library's. A missing array is not a finding: YSelectionManager::FromJSON raises
/// an error for it.
void CheckJob(const Krt::JSON::YObject& job, const std::function<void(const JobFinding&)>& visit);

} // namespace Agent
