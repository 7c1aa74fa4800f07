// What moves a file's data: sequential reading and writing, whatever stands behind it. One thread at a time.
#pragma once

#include "Backup/Export.h"

namespace Backup::File {

class BACKUP_API IFileIo
{
public:
    virtual ~IFileIo() = default;

    /// Reads up to `count` bytes on from the last; returns how many, 0 at the end.
    virtual unsigned int Read(void* buffer, unsigned int count) = 0;
    /// Writes `count` bytes behind the last; returns how many.
    virtual unsigned int Write(const void* buffer, unsigned int count) = 0;
    /// Goes to a byte, where the object can.
    virtual void Seek(unsigned long long offset) = 0;
    /// Says that the last byte was moved.
    virtual void EndOfFile() = 0;
    /// Whether reading leaves extended attributes out.
    virtual bool IsXattrDisabled() const = 0;
};

} // namespace Backup::File
