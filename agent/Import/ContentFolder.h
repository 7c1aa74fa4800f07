// ContentFolder: the folder in which an import finds contents, each in the place that the components of the
// record's job path name. No link is followed, so nothing outside the folder is ever read. The directories on
// the way to the last content stay open, since records mostly come directory by directory.
#pragma once

#include "agent/Restore/Place.h"

#include "Krt/File/YDirectory.h"

namespace Agent {

class ContentFolder
{
public:
    explicit ContentFolder(Krt::File::YDirectory root) : m_root(std::move(root)) {}

    /// What lies under the first path of the record, for reading; empty if nothing does, or only behind a
    /// link. A Windows volume is looked for by its own name and then, where there is none such, by the one
    /// that a restore gives it. Raises InvalidArgument for a path that could lead out of the folder, or the
    /// operating system's error.
    Krt::Util::YUnxHandle Open(Backup::File::YMetadataBase& metadata);

private:
    struct Name
    {
        Krt::YString own;
        Krt::YString restored;
        friend bool operator==(const Name&, const Name&) = default;
    };
    struct Level
    {
        Name name;
        Krt::File::YDirectory directory;
    };

    static std::vector<Name> NamesOf(Backup::File::YMetadataBase& metadata);
    static const Krt::YString& Choose(const Krt::File::YDirectory& parent, const Name& name);
    const Krt::File::YDirectory& Top() const { return m_levels.empty() ? m_root : m_levels.back().directory; }

    Krt::File::YDirectory m_root;
    std::vector<Level> m_levels;
};

} // namespace Agent
