// Determines where a backup's walks start and what they select: the paths that a user names, and a job's
// rules.
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
    std::vector<Krt::YString> warnings; ///< suspicious contents of the job file; see JobCheck.h
};

/// Loads a job file (the JSON form of the rules; "" for no file) and named paths, each of which selects that
/// entry and everything below it. A named path is made absolute; symlinks and ".." on it are resolved, but a
/// symlink at its end is kept. Raises the reason why the file or a path cannot be used, such as a finding of
/// CheckJob that is an error. The reason names the file or path.
Job LoadJob(const std::string& jobFile, const std::vector<std::string>& paths);

} // namespace Agent
