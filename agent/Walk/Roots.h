// Determines where a backup's walks start and what they select: the paths that a user names, and a job's
// rules.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace Agent {

struct Job
{
    Backup::File::YSelectionManager rules;
    std::set<Krt::File::YPath> roots;
    std::set<Krt::File::YPath> named; ///< the roots that are named paths
    /// Suspicious contents of the job file, see JobCheck.h; and named paths that are symlinks.
    std::vector<Krt::YString> warnings;
    /// What a snapshot records: the named paths as resolved, in their order; then the paths that the job file
    /// selects, as docs/job-format.md describes them, unless they are at or below a named path.
    std::vector<std::string> paths;
    /// The rules of the job file, each as "include JSON" or "exclude JSON" with the JSON object that a job
    /// file has for it. Empty if there are more than 10,000.
    std::vector<std::string> ruleTexts;
};

/// Called for a named path that can't be used, with the reason, which does not repeat the path.
using PathFailure = std::function<void(const std::string& path, const Krt::YString& reason)>;

/// Loads a job file (the JSON form of the rules; "" for no file) and named paths, each of which selects that
/// entry and everything below it. A named path is made absolute; symlinks and ".." on it are resolved, but a
/// symlink at its end is kept. Raises the reason why the file or a path cannot be used, such as a finding of
/// CheckJob that is an error. The reason names the file or path. With `onFailure`, a named path that can't be
/// used is given to it and left out. With `jobText`, the text of the job file is stored there.
Job LoadJob(const std::string& jobFile, const std::vector<std::string>& paths,
            const PathFailure& onFailure = {}, std::string* jobText = nullptr);

/// Returns the text of a job file without a byte order mark. Raises what RequireOwnFile raises, and
/// InvalidArgument for a file that can't be read or is too large.
std::string ReadJobFile(const std::string& jobFile);
/// Adds the rules of a named path: one for its name, and one for everything below it.
void Select(Backup::File::YSelectionManager& rules, const Krt::File::YPath& root);
/// Which paths VisitPathsWithoutEntries visits.
enum class Visited
{
    All,
    NotByWalk ///< those that a walk does not report itself
};
/// Calls `visit` with the path of each include, and the reason why no entries in it are stored: it does not
/// exist, or is a symlink, for example. The rules and the roots of the job are set.
void VisitPathsWithoutEntries(
    const Job& job, Visited visited,
    const std::function<void(const Krt::File::YPath& path, const std::string& text)>& visit);
/// Returns a path that exists and that the user may have meant by this one, which does not; "" if unknown.
std::string FindSimilarPath(const Krt::File::YPath& path);
/// Resolves a path as LoadJob does.
Krt::File::YPath ResolveNamedPath(const std::string& named);

} // namespace Agent
