#pragma once

/// @file
/// File operations by path and on an open descriptor. By path, a symlink as the last component is not
/// followed, except where noted. On a descriptor, they do not depend on the path. Unless noted, failures
/// raise the operating system's error (channel General), and calls are retried on EINTR. An empty handle
/// raises InvalidState. See YDirectory.h for the entries of an open directory, and YEntry.h for owner,
/// mode, times and attributes.

#include "Krt/File/YPath.h"
#include "Krt/Memory/YHeap.h"
#include "Krt/Util/YUnxHandle.h"

#include <sys/stat.h>

#include <list>
#include <map>

namespace Krt::File {

/// Values of extended attributes by name, including the namespace ("user.note").
using ExtendedAttributeMap = std::map<YString, Memory::YHeap<unsigned char>>;

/// The bit of a directory in the attribute word.
constexpr unsigned int AttributeDirectory = 0x10;
/// The attribute word of a path that cannot be read.
constexpr unsigned int AttributesUnknown = 0xFFFFFFFF;

/// Flag of Open: an existing file; never blocks on a FIFO.
constexpr unsigned int OpenForReading = 0x8001;
/// Flag of Open: a new file, created exclusively with mode 0600.
constexpr unsigned int OpenNewForWriting = 0x60;

/// Returns the attribute word of the entry itself.
KRT_API unsigned int GetAttributes(const YPath& path);
/// Returns the attribute word of the entry itself, or AttributesUnknown if the path cannot be read.
KRT_API unsigned int GetAttributesNoException(const YPath& path);
/// Returns the size of the entry itself in bytes.
KRT_API unsigned long long GetSize(const YPath& path);
/// Returns true if an entry exists at the path, also a dangling symlink. Never raises.
KRT_API bool DoesFileExist(const YPath& path);
/// Returns true if the entry is a symlink. Raises if it cannot be examined.
KRT_API bool IsSymbolicLink(const YPath& path);
/// Returns the path unchanged: the supported file systems are case-sensitive.
KRT_API YPath NormalizePathCase(const YPath& path);

/// Creates every missing parent directory, and with `includeLast` the path itself, with mode 0777 less the
/// umask. An existing component may be a symlink to a directory.
KRT_API void CreatePath(const YPath& path, bool includeLast);
/// Unlinks one entry. A missing one counts as success. A directory is never removed (raises EISDIR or
/// EPERM).
KRT_API void DeleteFile(const YPath& path);

/// Opens the file close-on-exec. `flags` is OpenForReading or OpenNewForWriting; other values raise
/// InvalidArgument.
KRT_API Util::YUnxHandle Open(const YPath& path, unsigned int flags);
/// Reads from `offset` until `count` bytes are read or the file ends. Returns the number of bytes read.
KRT_API unsigned long Read(const Util::YUnxHandle& handle, unsigned long long offset, unsigned long count,
                           void* buffer);
/// Writes all `count` bytes at `offset`, or raises. Returns `count`.
KRT_API unsigned long Write(const Util::YUnxHandle& handle, unsigned long long offset, unsigned long count,
                            const void* buffer);

/// Returns the names of the extended attributes of the entry itself, in all namespaces that the kernel
/// lists. Raises AttributesUnavailable if the path does not support them.
KRT_API std::list<YString> ListExtendedAttributes(const YPath& path);
/// Returns the extended attributes of the entry itself. Omits an attribute that is removed during the call,
/// or that the file system lists but refuses to read. Raises AttributesUnavailable if the path does not
/// support attributes.
KRT_API ExtendedAttributeMap GetExtendedAttributeMap(const YPath& path);
/// Sets an extended attribute to `size` bytes at `data`. `flags` are those of setxattr; 0 creates or
/// replaces.
KRT_API void AddExtendedAttribute(const YPath& path, const YString& name, const void* data, unsigned int size,
                                  unsigned int flags);

/// Returns the status as fstat does.
KRT_API struct stat Stat(const Util::YUnxHandle& handle);
/// Truncates the file to `size` bytes, or extends it by a hole.
KRT_API void SetSize(const Util::YUnxHandle& handle, unsigned long long size);
/// Returns when the content is durable.
KRT_API void Sync(const Util::YUnxHandle& handle);
/// Makes the content durable. Returns 0, or the error number, which is EBADF for an empty handle. Makes
/// system calls only, so it may be called in the child of a fork while the parent has other threads.
KRT_API int TrySync(const Util::YUnxHandle& handle) noexcept;

/// Returns the bytes of a file of any type that was just opened. The error is EFBIG if there are more than
/// `limit` bytes. Raises only InvalidState, for an empty handle.
KRT_API Util::OsResult<std::string> ReadWholeFile(const Util::YUnxHandle& handle, std::size_t limit);

/// Removes the access control list, whose rights for single users and groups extend the mode, and a
/// directory's default list, which new entries inherit.
KRT_API void RemoveAccessLists(const Util::YUnxHandle& handle);

/// The directory of temporary files.
constexpr unsigned int TemporaryFiles = 5;

/// Returns the directory, which need not exist. For TemporaryFiles it is $TMPDIR if that is absolute and
/// the process is not privilege-raised, otherwise /tmp. Raises InvalidArgument for another number.
KRT_API YPath GetPathMap(unsigned int index);

/// The type of a file in the mode word of its status (st_mode of POSIX's sys/stat.h). The values are fixed,
/// since records carry the word between systems.
constexpr unsigned int FileTypeMask = 0xF000;         ///< bits of the type
constexpr unsigned int FileTypeDirectory = 0x4000;    ///< S_IFDIR
constexpr unsigned int FileTypeRegular = 0x8000;      ///< S_IFREG
constexpr unsigned int FileTypeSymbolicLink = 0xA000; ///< S_IFLNK

} // namespace Krt::File
