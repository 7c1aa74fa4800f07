// Staging: a temporary directory in the parent directory of the entries that a restore creates. No other user
// can enter it. An entry without a descriptor, such as a symlink or a FIFO, gets its attributes by name in
// there and is then moved to its location. In another directory, a user could meanwhile swap it for a hard
// link to a file outside the target. It inherits no rights there either.
#pragma once

#include "Krt/File/YDirectory.h"

namespace Agent {

class Staging
{
public:
    /// Creates the directory. Raises the operating system's error, after removing what it created.
    static Staging Create(const Krt::File::YDirectory& parent, const Krt::YString& name);

    const Krt::File::YDirectory& GetDirectory() const { return m_directory; }
    /// False if others can enter nevertheless: the file system keeps no owners or modes, or another user
    /// replaced the directory. An entry of a given name may then be another one.
    bool IsPrivate() const { return m_isPrivate; }

private:
    Staging(Krt::File::YDirectory directory, bool isPrivate)
        : m_directory(std::move(directory)), m_isPrivate(isPrivate)
    {}

    Krt::File::YDirectory m_directory;
    bool m_isPrivate;
};

} // namespace Agent
