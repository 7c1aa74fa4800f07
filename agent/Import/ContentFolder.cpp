#include "agent/Import/ContentFolder.h"

#include "Krt/Exception/YError.h"

#include <sys/stat.h>

#include <cerrno>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;

Krt::Util::YUnxHandle ContentFolder::Open(Backup::File::YMetadataBase& metadata)
{
    const std::vector<Name> names = NamesOf(metadata);
    std::size_t common = 0;
    while (common < m_open.size() && common + 1 < names.size() && m_open[common].name == names[common])
        ++common;
    m_open.erase(m_open.begin() + static_cast<std::ptrdiff_t>(common), m_open.end());
    try {
        while (m_open.size() + 1 < names.size()) {
            const Name& name = names[m_open.size()];
            m_open.push_back({name, Top().OpenDirectory(Choose(Top(), name))});
        }
        return Top().OpenFile(Choose(Top(), names.back()));
    } catch (const Krt::Exception::YError& error) {
        // ELOOP and ENOTDIR mean that the path leads through a symlink, and ENXIO that the entry is a socket.
        const int code = error.GetType() == Krt::ExceptionType::OsError ? error.GetOsError() : 0;
        if (code == ENOENT || code == ENOTDIR || code == ELOOP || code == ENXIO)
            return {};
        m_open.clear(); // a path that is too deep leaves no descriptors for others
        throw;
    }
}

std::vector<ContentFolder::Name> ContentFolder::NamesOf(Backup::File::YMetadataBase& metadata)
{
    const Backup::YJobPath path = metadata.GetFilePath(0);
    std::vector<Name> names;
    for (YString& restored : TargetLocationOf(metadata, 0))
        names.push_back({path.GetComponent(names.size()).m_name, std::move(restored)});
    return names;
}

// A volume's own name may contain a slash, unlike the name of a file.
const YString& ContentFolder::Choose(const YDirectory& parent, const Name& name)
{
    struct stat ignored;
    const bool isUsable = name.own == name.restored || (name.own.Bytes().find('/') == std::string::npos &&
                                                        parent.StatIfPresent(name.own, ignored));
    return isUsable ? name.own : name.restored;
}

} // namespace Agent
