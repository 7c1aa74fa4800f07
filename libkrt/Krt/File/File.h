// File operations by path. None follows a symbolic link at the last component, unless told otherwise. All
// raise the operating system's error (channel General) and repeat a call that a signal interrupted. See
// OpenFile.h for an open descriptor, YDirectory.h for the entries of an open directory.
#pragma once

#include "Krt/File/YPath.h"
#include "Krt/Memory/YHeap.h"
#include "Krt/Util/YUnxHandle.h"

#include <list>
#include <map>

namespace Krt::File {

/// Values by name, namespace included ("user.note").
using ExtendedAttributeMap = std::map<YString, Memory::YHeap<unsigned char>>;

/// The attribute word: bit 0x10 for a directory.
constexpr unsigned int AttributeDirectory = 0x10;
constexpr unsigned int AttributesUnknown = 0xFFFFFFFF; ///< of a path that can't be read

/// Flags of Open.
constexpr unsigned int OpenForReading = 0x8001;  ///< an existing file; never blocks on a FIFO
constexpr unsigned int OpenNewForWriting = 0x60; ///< exclusively created, mode 0600

/// Describes the entry itself.
KRT_API unsigned int GetAttributes(const YPath& path);
/// AttributesUnknown where the path can't be read.
KRT_API unsigned int GetAttributesNoException(const YPath& path);
/// Size in bytes of the entry itself.
KRT_API unsigned long long GetSize(const YPath& path);
/// Whether something exists at the path; a dangling link does. Never raises.
KRT_API bool DoesFileExist(const YPath& path);
/// Raises where the entry can't be examined.
KRT_API bool IsSymbolicLink(const YPath& path);
/// A plain copy: the file systems served here are case-sensitive.
KRT_API YPath NormalizePathCase(const YPath& path);

/// Creates every missing parent, and with `includeLast` the path itself, as directories of mode 0777 less the
/// umask. What exists may be a link to a directory.
KRT_API void CreatePath(const YPath& path, bool includeLast);
/// Unlinks one entry; a missing one counts as done; a directory is never removed (EISDIR or EPERM is raised).
KRT_API void DeleteFile(const YPath& path);

/// Opens close-on-exec; see the flags above, other ones raise InvalidArgument.
KRT_API Util::YUnxHandle Open(const YPath& path, unsigned int flags);
/// Reads at the offset until `count` bytes or the end of the file; returns the bytes read. An empty handle
/// raises InvalidState, here and in Write.
KRT_API unsigned long Read(const Util::YUnxHandle& handle, unsigned long long offset, unsigned long count,
                           void* buffer);
/// Writes all `count` bytes at the offset, or raises.
KRT_API unsigned long Write(const Util::YUnxHandle& handle, unsigned long long offset, unsigned long count,
                            const void* buffer);

/// Extended attributes of the entry itself, all namespaces that the kernel shows. AttributesUnavailable where
/// the path has none to offer. One that vanishes between the listing and its turn, or that the file system
/// lists but refuses to give, is left out of the map.
KRT_API std::list<YString> ListExtendedAttributes(const YPath& path);
KRT_API ExtendedAttributeMap GetExtendedAttributeMap(const YPath& path);
/// `flags`: 0 creates or replaces.
KRT_API void AddExtendedAttribute(const YPath& path, const YString& name, const void* data, unsigned int size,
                                  unsigned int flags);

} // namespace Krt::File
