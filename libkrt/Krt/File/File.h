#pragma once

/// @file
/// File operations by path. A symlink as the last component is not followed, except where noted. All raise
/// the operating system's error (channel General) and retry on EINTR. See OpenFile.h for open descriptors,
/// and YDirectory.h for the entries of an open directory.

#include "Krt/File/YPath.h"
#include "Krt/Memory/YHeap.h"
#include "Krt/Util/YUnxHandle.h"

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
/// Raises InvalidState for an empty handle.
KRT_API unsigned long Read(const Util::YUnxHandle& handle, unsigned long long offset, unsigned long count,
                           void* buffer);
/// Writes all `count` bytes at `offset`, or raises. Raises InvalidState for an empty handle.
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

} // namespace Krt::File
