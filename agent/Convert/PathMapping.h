// The job paths that the program gives to what it reads of other systems, and to what its user types.
#pragma once

#include "Backup/File/YMetadataBase.h"

#include <string>
#include <vector>

namespace Agent {

/// Gives a Unix path the job path of its components below `base`.
Backup::File::JobPathMapper MakeUnixMapper(const Backup::YJobPath& base);
/// The same for a Windows path. Its volume, as C:, \\?\Volume{...} or that of a shadow copy, is one component
/// as it stands; backslashes and slashes separate the others. The \\?\ in front of any other path is no
/// component.
Backup::File::JobPathMapper MakeWindowsMapper(const Backup::YJobPath& base);

/// The job paths that a user may mean by a text: its JSON form ({"components":[...]}), a path of a file
/// system, Unix or Windows, or else components of no known class, as in job/part. A path of a file system may
/// be that of a directory and that of a file, which differ; both are given, the directory first. Raises
/// InvalidArgument for damaged JSON.
std::vector<Backup::YJobPath> JobPathsOf(const std::string& text);

} // namespace Agent
