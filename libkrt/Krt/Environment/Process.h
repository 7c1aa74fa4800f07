// Facts about the process.
#pragma once

#include "Krt/Export.h"

namespace Krt::Environment {

/// Whether the process runs with privileges that its starter doesn't have (set-user-id and the like), so that
/// environment variables aren't to be trusted.
KRT_API bool IsPrivilegeRaised();

} // namespace Krt::Environment
