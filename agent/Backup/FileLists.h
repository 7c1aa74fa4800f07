// FileLists: the paths that a backup reads from files, as with --files-from.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Agent {

/// Names of files, or "-" for standard input.
struct FileLists
{
    std::vector<std::string> patterns; ///< UTF-8 text with a pattern of paths on each line
    std::vector<std::string> verbatim; ///< UTF-8 text with a path on each line, which may end with CR LF
    std::vector<std::string> raw;      ///< each path is followed by a zero byte

    bool IsEmpty() const { return patterns.empty() && verbatim.empty() && raw.empty(); }
};

/// Returns the paths that exist and match, sorted; the path itself if it contains neither "*", "?", "[" nor
/// a backslash. Directories that can't be read have no entries. Raises InvalidArgument for a set that is not
/// closed, with a text that begins with `place`.
std::vector<std::string> ExpandPath(const std::string& pattern, const std::string& place = {});

/// Returns the paths of all lists, in their order. Calls `onNoMatch` with each pattern that no path matches.
/// Raises InvalidArgument for a list that is damaged, and what ReadListFile raises.
std::vector<std::string> PathsOf(const FileLists& lists,
                                 const std::function<void(const std::string& pattern)>& onNoMatch);

} // namespace Agent
