#pragma once

/// @file
/// Operations on an open descriptor of a file or directory, which do not depend on its path. YEntry.h has
/// owner, mode, times and attributes. All raise the operating system's error (channel General) and retry on
/// EINTR.

#include "Krt/File/File.h"

#include <sys/stat.h>

namespace Krt::File {

/// An owner or group that is not changed.
constexpr unsigned int KeepOwner = 0xFFFFFFFF;

/// Returns the status as fstat does.
KRT_API struct stat Stat(const Util::YUnxHandle& handle);
/// Truncates the file to `size` bytes, or extends it by a hole.
KRT_API void SetSize(const Util::YUnxHandle& handle, unsigned long long size);
/// Returns when the content is durable.
KRT_API void Sync(const Util::YUnxHandle& handle);

/// Returns the bytes of a file of any type that was just opened. The error is EFBIG if there are more than
/// `limit` bytes. Raises only InvalidState, for an empty handle.
KRT_API Util::OsResult<std::string> ReadWholeFile(const Util::YUnxHandle& handle, std::size_t limit);

/// Removes the access control list, whose rights for single users and groups extend the mode, and a
/// directory's default list, which new entries inherit.
KRT_API void RemoveAccessLists(const Util::YUnxHandle& handle);

} // namespace Krt::File
