// Where a backup's walks start and what they select: the paths that a user names, and a job's rules.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <set>
#include <string>
#include <vector>

namespace Agent {

struct Job
{
    Backup::File::YSelectionManager rules;
    std::set<Krt::File::YPath> roots;
    std::vector<Krt::YString> warnings; ///< what is odd about the job file; see JobCheck.h
};

/// The job of a file with the JSON form of the rules (empty: none) and of named paths, each of which stands
/// for that entry and all below it. A named path is made absolute, links and ".." on the way are resolved, a
/// link at its end is kept. Raises, naming the file or path, what keeps either from being used, such as a
/// finding of CheckJob that is an error.
Job LoadJob(const std::string& jobFile, const std::vector<std::string>& paths);

} // namespace Agent
