#pragma once

/// @file
/// Thin wrappers of POSIX calls, and the rule that keeps a walk on the volumes that a backup covers. Calls
/// are retried on EINTR, except where noted. A failure is a YError of the type OsError with the error
/// number, on the channel General unless noted. There is no state: any thread may call. A mount point below
/// a selected directory is entered only if its file system is on a fixed disk or the configuration lists
/// it.

#include "Backup/Export.h"

#include "Krt/File/YPath.h"

#include <sys/stat.h>

namespace Backup::File {

using Krt::File::YPath;

/// The number of bytes of a symlink's target that are read at most.
constexpr unsigned int LinkTargetSize = 1024;

/// Reads the status of the entry itself, also of a dangling symlink. Errors are on the channel FileStat.
BACKUP_API void StatFile(const YPath& path, struct stat* status);
/// Returns the inode number. Stores the allocated bytes (not the logical size) in `*allocated` unless it is
/// nullptr.
BACKUP_API unsigned long long GetFileInode(const YPath& path, unsigned long long* allocated);
/// Returns the size in bytes, or 0 if it cannot be read, which is logged on the channel FileInfo.
BACKUP_API unsigned long long GetFileSize(const YPath& path);
/// Returns st_mode, including the type bits.
BACKUP_API unsigned int GetModeFlags(const YPath& path);
/// Returns true for a FIFO, a device or a socket, and for a path that may not be examined (EACCES).
BACKUP_API bool IsSpecialFile(const YPath& path);
/// Returns true if the entry is a directory; false for a symlink to a directory.
BACKUP_API bool DoesDirExist(const YPath& path);
/// Returns the path unchanged.
BACKUP_API YPath NormalizePathCase(const YPath& path);

/// Creates the hard link `link` to `existing`. Fails if an entry of that name exists.
BACKUP_API void CreateHardlink(const YPath& link, const YPath& existing);
/// Returns at most the first LinkTargetSize bytes of the target. Raises InvalidState without text if the
/// path is not a symlink. Not retried on EINTR.
BACKUP_API YPath GetSymbolicLinkTarget(const YPath& path);
/// Creates a symlink and its missing parent directories. An existing entry is replaced.
BACKUP_API void CreateSymbolicLink(const YPath& link, const YPath& target);
/// Creates a directory. An existing entry of that name, of any type, counts as success.
BACKUP_API void CreateDirectory(const YPath& path, unsigned int mode);
/// Creates a directory of mode 0644, which only the superuser can search. Callers set the real mode when
/// the content is complete.
BACKUP_API void CreateDirectory(const YPath& path);

/// Sets access and modification time, in seconds since the epoch. Follows symlinks.
BACKUP_API void SetFileTime(const YPath& path, unsigned long long access, unsigned long long write);
/// Sets the mode to the low 16 bits of `flags`; does nothing if their type bits denote a symlink.
BACKUP_API void SetModeFlags(const YPath& path, unsigned int flags);
/// Sets the owner. Follows symlinks.
BACKUP_API void SetUID(const YPath& path, unsigned int uid);
/// Sets the group. Follows symlinks.
BACKUP_API void SetGID(const YPath& path, unsigned int gid);

/// Creates or truncates a file. A symlink as the last component is not followed. Returns a descriptor above
/// those of the standard streams; the caller closes it.
BACKUP_API int OpenForBackupWrite(const YPath& path);
/// Opens an existing file with O_RDONLY and O_NOFOLLOW only, so that a later read changes the access time
/// where the file system keeps it. Returns a descriptor above those of the standard streams; the caller
/// closes it.
BACKUP_API int OpenForBackupRead(const YPath& path);
/// Writes all `count` bytes at `offset`. After a short write it continues only if errno is EINTR, which is
/// not cleared beforehand.
BACKUP_API void Write(int fd, unsigned long long offset, const unsigned char* data, unsigned int count);
/// Returns the number of bytes read at `offset`. A short read ends the call unless errno is EINTR, which is
/// not cleared beforehand.
BACKUP_API unsigned int Read(int fd, unsigned long long offset, unsigned char* data, unsigned int count);
/// Closes the descriptor. Errors are on the channel FileClose.
BACKUP_API void Close(int fd);

/// Returns true if a walk may descend into the path. `attributes` is the value of Krt::File::GetAttributes;
/// the result is false if it is AttributesUnknown or lacks the directory bit. An ordinary directory costs
/// two stat calls. Any thread. Raises the errors of IsMountPoint. If a mount point cannot be classified,
/// returns true if "walkIntoUnknownMountPoints" is configured, otherwise raises InvalidArgument with the
/// cause in its text. "IncludedMountpoints", the exact mount paths to follow whatever their class, is read
/// once in a process.
BACKUP_API bool IsFollowableDirectoryFromKrtAttributes(const YPath& path, unsigned int attributes);

} // namespace Backup::File
