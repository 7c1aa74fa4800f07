// What open directories need beyond the common calls, as each platform does it.
#pragma once

#include "Krt/File/YDirectory.h"

namespace Krt::File {

/// Opens, for reading and close-on-exec, the directory at the end of a relative path without following a link
/// anywhere on it, above the standard streams. ENOSYS where the system has no such call.
Util::OsResult<Util::YUnxHandle> OpenBeneath(int directory, const char* path);

/// Sets the mode of an open directory, also of one that was opened to search.
Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode);

/// Shows the visitor each entry but "." and "..", from where the descriptor stands, until it answers false.
/// Returns 0, or the number of the error.
int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor);

inline bool IsDots(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

} // namespace Krt::File
