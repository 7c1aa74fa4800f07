// Staging: a directory of the restore's own beside the entries that it makes, which nobody else may enter.
// What has no descriptor, such as a link or a FIFO, gets its attributes there, by name, before it takes its
// place, and inherits nothing: anywhere else somebody could swap it for a name of a file outside the target
// in the meantime.
#pragma once

#include "Krt/File/YDirectory.h"

namespace Agent {

class Staging
{
public:
    /// Makes the directory. Raises the operating system's error.
    Staging(const Krt::File::YDirectory& parent, const Krt::YString& name);

    const Krt::File::YDirectory& GetDirectory() const { return m_directory; }
    /// False where others may enter all the same: the file system keeps no owners or modes, or somebody put
    /// another directory in this one's place. Names in it are not to be relied on then.
    bool IsPrivate() const { return m_isPrivate; }

private:
    Krt::File::YDirectory m_directory;
    bool m_isPrivate;
};

} // namespace Agent
