// The one place that opens descriptors by path.
#pragma once

#include "Krt/Util/YUnxHandle.h"

namespace Krt::Util {

/// open(2), close-on-exec and repeated on EINTR. The descriptor is moved above 2, so that it can be told from
/// none and from the standard streams. Empty on failure, with errno set.
KRT_API YUnxHandle OpenHandle(const char* path, int flags, unsigned int mode = 0);

} // namespace Krt::Util
