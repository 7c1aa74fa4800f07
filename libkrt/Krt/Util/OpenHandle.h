// The one place that opens descriptors by path, and the one that closes what was written.
#pragma once

#include "Krt/Util/YUnxHandle.h"

namespace Krt::Util {

/// open(2), close-on-exec and repeated on EINTR. The descriptor is moved above 2, so that it can be told from
/// none and from the standard streams. Empty on failure, with errno set.
KRT_API YUnxHandle OpenHandle(const char* path, int flags, unsigned int mode = 0);

/// Closes the descriptor as YUnxHandle::Close does, and tells whether the data that were written are kept as
/// far as that can be known: false, with errno set, where a file system reports a loss only now. Empty
/// afterwards in any case.
KRT_API bool CloseWritten(YUnxHandle& handle);

} // namespace Krt::Util
