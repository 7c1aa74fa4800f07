// Operations on an open descriptor: they reach the very file that was opened, whatever has happened to its
// path since. For files and directories alike. YEntry.h has owner, mode, times and attributes. All raise the
// operating system's error (channel General) and repeat a call that a signal interrupted.
#pragma once

#include "Krt/File/File.h"

#include <sys/stat.h>

namespace Krt::File {

/// An owner or group that stays as it is.
constexpr unsigned int KeepOwner = 0xFFFFFFFF;

/// The status as fstat gives it.
KRT_API struct stat Stat(const Util::YUnxHandle& handle);
/// Cuts the file, or lengthens it by a hole; bytes.
KRT_API void SetSize(const Util::YUnxHandle& handle, unsigned long long size);
/// Returns once the content is on the medium.
KRT_API void Sync(const Util::YUnxHandle& handle);

/// The bytes of a file of any kind that was just opened. The error is EFBIG if there are more than `limit`.
/// Raises nothing but the use of an empty handle.
KRT_API Util::OsResult<std::string> ReadWholeFile(const Util::YUnxHandle& handle, std::size_t limit);

/// Takes away the rights that single users and groups have beside the mode, and those that a directory hands
/// down to what is made in it.
KRT_API void RemoveAccessLists(const Util::YUnxHandle& handle);

} // namespace Krt::File
