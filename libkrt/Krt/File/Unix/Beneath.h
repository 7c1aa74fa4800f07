// What open directories need beyond the common calls, as each platform does it.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <sys/types.h>

namespace Krt::File {

/// Opens, for reading and close-on-exec, the directory at the end of a relative path without following a link
/// anywhere on it, above the standard streams. ENOSYS where the system has no such call.
Util::OsResult<Util::YUnxHandle> OpenBeneath(int directory, const char* path);

/// Sets the mode of an open directory, also of one that was opened to search.
Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode);

} // namespace Krt::File
