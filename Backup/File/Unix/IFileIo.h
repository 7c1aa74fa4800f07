#pragma once

#include "Backup/Export.h"

namespace Backup::File {

/// Sequential reading and writing of a file's data. One thread at a time.
class BACKUP_API IFileIo
{
public:
    virtual ~IFileIo() = default;

    /// Reads up to `count` bytes after those of the last call. Returns the number of bytes read, 0 at the
    /// end.
    virtual unsigned int Read(void* buffer, unsigned int count) = 0;
    /// Writes `count` bytes after those of the last call. Returns the number of bytes written.
    virtual unsigned int Write(const void* buffer, unsigned int count) = 0;
    /// Moves to a byte offset, if the object supports it.
    virtual void Seek(unsigned long long offset) = 0;
    /// Called after the last byte was read or written.
    virtual void EndOfFile() = 0;
    /// Returns true if reading omits extended attributes.
    virtual bool IsXattrDisabled() const = 0;
};

} // namespace Backup::File
