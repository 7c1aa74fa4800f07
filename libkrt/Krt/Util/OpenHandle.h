// Opens descriptors by path, and closes what was written.
#pragma once

#include "Krt/Util/YUnxHandle.h"

namespace Krt::Util {

/// open(2), close-on-exec and repeated on EINTR. The descriptor is moved above 2, so that it can be told from
/// an empty handle and from the standard streams. The handle is empty after a failure.
KRT_API OsResult<YUnxHandle> OpenHandle(const char* path, int flags, unsigned int mode = 0);

/// Closes the descriptor as YUnxHandle::Close does. Returns 0 if the data that were written are kept as far
/// as that can be known, or the error number of the loss that a file system reports only now. The handle is
/// empty afterwards in any case.
KRT_API int TryCloseWritten(YUnxHandle& handle);
/// TryCloseWritten, which raises the operating system's error (channel General) with the text "Failed to
/// write file".
KRT_API void CloseWritten(YUnxHandle& handle);

} // namespace Krt::Util
