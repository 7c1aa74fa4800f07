#pragma once

/// @file
/// Opening descriptors by path, and closing files that were written.

#include "Krt/Util/YUnxHandle.h"

namespace Krt::Util {

/// Calls open with O_CLOEXEC, retried on EINTR. The descriptor is moved above 2, to distinguish it from an
/// empty handle and from the standard streams. The handle is empty after a failure.
KRT_API OsResult<YUnxHandle> OpenHandle(const char* path, int flags, unsigned int mode = 0);

/// Closes the descriptor as YUnxHandle::Close does. Returns 0, or the error number of a loss of written
/// data that the file system reports only now. The handle is empty afterwards in any case.
KRT_API int TryCloseWritten(YUnxHandle& handle);
/// Calls TryCloseWritten and raises its error (channel General) with the text "Failed to write file".
KRT_API void CloseWritten(YUnxHandle& handle);

} // namespace Krt::Util
