// ContentFolder: the directory of the contents of an import, each at the path that the components of the
// record's job path name. Symlinks are not followed, so nothing outside the directory is ever read.
#pragma once

#include "agent/Restore/TargetLocation.h"

#include "Krt/File/YDirectory.h"

#include <vector>

namespace Agent {

/// The directories on the path to the last content stay open, since records are usually sorted by directory.
class ContentFolder
{
public:
    explicit ContentFolder(Krt::File::YDirectory root) : m_root(std::move(root)) {}

    /// Opens the file at the first path of the record for reading; returns an empty handle if it is missing
    /// or can only be reached through a symlink. A Windows volume is searched by its own name, and then by
    /// the name that a restore uses for it. Raises InvalidArgument for a path that could lead out of the
    /// directory, or the operating system's error.
    Krt::Util::YUnxHandle Open(Backup::File::YMetadataBase& metadata);

private:
    struct Name
    {
        Krt::YString own;
        Krt::YString restored;
        friend bool operator==(const Name&, const Name&) = default;
    };
    struct OpenDirectory
    {
        Name name;
        Krt::File::YDirectory directory;
    };

    static std::vector<Name> NamesOf(Backup::File::YMetadataBase& metadata);
    static const Krt::YString& Choose(const Krt::File::YDirectory& parent, const Name& name);
    const Krt::File::YDirectory& Top() const { return m_open.empty() ? m_root : m_open.back().directory; }

    Krt::File::YDirectory m_root;
    std::vector<OpenDirectory> m_open;
};

} // namespace Agent
