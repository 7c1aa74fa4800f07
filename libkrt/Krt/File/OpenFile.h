// Operations on an open descriptor: they reach the very file that was opened, whatever has happened to its
// path since. For files and directories alike. All raise the operating system's error (channel General) and
// repeat a call that a signal interrupted.
#pragma once

#include "Krt/File/File.h"

#include <sys/stat.h>

namespace Krt::File {

/// An owner or group that stays as it is.
constexpr unsigned int KeepOwner = 0xFFFFFFFF;

/// The status as fstat gives it.
KRT_API struct stat Stat(const Util::YUnxHandle& handle);
/// Either may be KeepOwner.
KRT_API void SetOwner(const Util::YUnxHandle& handle, unsigned int user, unsigned int group);
/// The permission bits, with set-user, set-group and sticky; bits of the type are ignored.
KRT_API void SetMode(const Util::YUnxHandle& handle, unsigned int mode);
/// A tv_nsec of UTIME_OMIT leaves a time, UTIME_NOW sets the current one.
KRT_API void SetTimes(const Util::YUnxHandle& handle, const timespec& access, const timespec& write);
/// Cuts the file, or lengthens it by a hole; bytes.
KRT_API void SetSize(const Util::YUnxHandle& handle, unsigned long long size);
/// Returns once the content is on the medium.
KRT_API void Sync(const Util::YUnxHandle& handle);

/// The bytes of a file of any kind that was just opened. The error is EFBIG if there are more than `limit`.
/// Raises nothing but the use of an empty handle.
KRT_API Util::OsResult<std::string> ReadWholeFile(const Util::YUnxHandle& handle, std::size_t limit);

/// As the operations of File.h.
KRT_API std::list<YString> ListExtendedAttributes(const Util::YUnxHandle& handle);
KRT_API ExtendedAttributeMap GetExtendedAttributeMap(const Util::YUnxHandle& handle);
KRT_API void AddExtendedAttribute(const Util::YUnxHandle& handle, const YString& name, const void* data,
                                  unsigned int size, unsigned int flags);
/// Takes away the rights that single users and groups have beside the mode, and those that a directory hands
/// down to what is made in it.
KRT_API void RemoveAccessLists(const Util::YUnxHandle& handle);

} // namespace Krt::File
