#pragma once

/// @file
/// The operations on open directories that each platform defines.

#include "Krt/File/YDirectory.h"

namespace Krt::File {

/// Opens the directory at a relative path for reading, close-on-exec, above the standard streams. Symlinks
/// are not followed in any component. ENOSYS if the system has no such call.
Util::OsResult<Util::YUnxHandle> OpenBeneath(int directory, const char* path);

/// Sets the mode of an open directory, also if it was opened to search.
Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode);

/// Calls `visitor` for each entry except "." and "..", from the descriptor's position, until it returns
/// false. Returns 0 or the error number.
int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor);

/// Returns true for "." and "..".
inline bool IsDots(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

} // namespace Krt::File
