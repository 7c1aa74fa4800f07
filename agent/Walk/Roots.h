// Determines where a backup's walks start and what they select: the paths that a user names, and a job's
// rules.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include "Krt/Exception/YError.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace Agent {

struct Job
{
    Backup::File::YSelectionManager rules;
    std::set<Krt::File::YPath> roots;
    /// Suspicious contents of the job file, see JobCheck.h; and named paths that are symlinks.
    std::vector<Krt::YString> warnings;
    std::vector<std::string> paths; ///< the named paths as resolved, in their order, then the job's tops
    /// The rules of the job file, each as "include JSON" or "exclude JSON" with the JSON object that a job
    /// file has for it. Empty if there are more than 10,000.
    std::vector<std::string> ruleTexts;
};

/// Called for a named path that can't be used, with the reason.
using PathFailure = std::function<void(const std::string& path, const Krt::Exception::YError& error)>;

/// Loads a job file (the JSON form of the rules; "" for no file) and named paths, each of which selects that
/// entry and everything below it. A named path is made absolute; symlinks and ".." on it are resolved, but a
/// symlink at its end is kept. Raises the reason why the file or a path cannot be used, such as a finding of
/// CheckJob that is an error. The reason names the file or path. With `onFailure`, a named path that can't be
/// used is given to it and left out. With `jobText`, the text of the job file is stored there.
Job LoadJob(const std::string& jobFile, const std::vector<std::string>& paths,
            const PathFailure& onFailure = {}, std::string* jobText = nullptr);

/// Resolves a path as LoadJob does.
Krt::File::YPath ResolveNamedPath(const std::string& named);

} // namespace Agent
