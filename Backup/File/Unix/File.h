// The file primitives: one POSIX call each, with the agent's rules. A call that a signal interrupted is
// repeated without limit, but for those named otherwise; a failure is a YError of the type OsError that
// carries the number, on the channel General unless told otherwise. No state and no lock: any thread may
// call. With them stands the rule that keeps a walk on the volumes that a backup covers: a mount point below
// a selected folder is entered only if it is a fixed disk's file system or the configuration lists it.
#pragma once

#include "Backup/Export.h"

#include "Krt/File/YPath.h"

#include <sys/stat.h>

namespace Backup::File {

using Krt::File::YPath;

/// The status of the entry itself, also of a dangling link. Errors stand on the channel FileStat.
BACKUP_API void StatFile(const YPath& path, struct stat* status);
/// The inode; stores the allocated bytes, not the logical size, unless the pointer is null.
BACKUP_API unsigned long long GetFileInode(const YPath& path, unsigned long long* allocated);
/// Size in bytes; 0, and a line on the channel FileInfo, where it can't be had.
BACKUP_API unsigned long long GetFileSize(const YPath& path);
/// st_mode with the bits of the type.
BACKUP_API unsigned int GetModeFlags(const YPath& path);
/// FIFO, device or socket; also a path that may not be examined (EACCES).
BACKUP_API bool IsSpecialFile(const YPath& path);
/// A link to a directory is none.
BACKUP_API bool DoesDirExist(const YPath& path);
/// A copy, unchanged.
BACKUP_API YPath NormalizePathCase(const YPath& path);

/// Fails if something has the name already.
BACKUP_API void CreateHardlink(const YPath& link, const YPath& existing);
/// At most the first 1024 bytes of the target. An empty InvalidState if the path is no link. Not repeated.
BACKUP_API YPath GetSymbolicLinkTarget(const YPath& path);
/// Replaces an old entry and makes missing parents.
BACKUP_API void CreateSymbolicLink(const YPath& link, const YPath& target);
/// Any entry that has the name already, of whatever kind, counts as success.
BACKUP_API void CreateDirectory(const YPath& path, unsigned int mode);
/// With mode 0644, which lets nobody but the superuser in: callers set the real mode when the content is
/// there.
BACKUP_API void CreateDirectory(const YPath& path);

/// Seconds since the epoch. Follows links.
BACKUP_API void SetFileTime(const YPath& path, unsigned long long access, unsigned long long write);
/// The low 16 bits; does nothing if the type bits are those of a link.
BACKUP_API void SetModeFlags(const YPath& path, unsigned int flags);
/// Both follow links.
BACKUP_API void SetUID(const YPath& path, unsigned int uid);
BACKUP_API void SetGID(const YPath& path, unsigned int gid);

/// The descriptor, above those of the standard streams, which the caller closes. A file is created or
/// emptied; no link is followed at the end.
BACKUP_API int OpenForBackupWrite(const YPath& path);
/// Opens an existing file with O_RDONLY and O_NOFOLLOW alone, so that a later read moves the access time
/// where the file system keeps one. Returns a descriptor above those of the standard streams; the caller
/// closes it.
BACKUP_API int OpenForBackupRead(const YPath& path);
/// Writes all bytes. A short write goes on only while errno is EINTR, which is not cleared beforehand.
BACKUP_API void Write(int fd, unsigned long long offset, const unsigned char* data, unsigned int count);
/// The bytes read: a short read ends the call unless errno is EINTR, which is not cleared beforehand.
BACKUP_API unsigned int Read(int fd, unsigned long long offset, unsigned char* data, unsigned int count);
/// Errors stand on the channel FileClose.
BACKUP_API void Close(int fd);

/// Returns whether a walk may descend into the path. `attributes` is the word of Krt::File::GetAttributes;
/// what isn't known to be a directory is never followed. An ordinary directory costs two stat calls. Any
/// thread. Raises what IsMountPoint raises. Where a mount point can't be classified, raises InvalidArgument
/// with the cause in its text, or answers true if "walkIntoUnknownMountPoints" is configured.
/// "IncludedMountpoints", the exact mount paths to follow whatever they hold, is read once in a process.
BACKUP_API bool IsFollowableDirectoryFromKrtAttributes(const YPath& path, unsigned int attributes);

} // namespace Backup::File
