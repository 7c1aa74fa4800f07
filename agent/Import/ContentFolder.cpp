#include "agent/Import/ContentFolder.h"

#include "Krt/Exception/YError.h"

#include <cerrno>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;

Krt::Util::YUnxHandle ContentFolder::Open(Backup::File::YMetadataBase& metadata)
{
    const std::vector<Name> names = NamesOf(metadata);
    std::size_t common = 0;
    while (common < m_levels.size() && common + 1 < names.size() && m_levels[common].name == names[common])
        ++common;
    m_levels.erase(m_levels.begin() + static_cast<std::ptrdiff_t>(common), m_levels.end());
    try {
        while (m_levels.size() + 1 < names.size()) {
            const Name& name = names[m_levels.size()];
            m_levels.push_back({name, Top().OpenDirectory(Choose(Top(), name))});
        }
        return Top().OpenFile(Choose(Top(), names.back()));
    } catch (const Krt::Exception::YError& error) {
        // With ELOOP and ENOTDIR a link may stand in the way, and ENXIO is what a socket gives.
        const int code = error.GetType() == Krt::ExceptionType::OsError ? error.GetOsError() : 0;
        if (code != ENOENT && code != ENOTDIR && code != ELOOP && code != ENXIO)
            throw;
        return {};
    }
}

std::vector<ContentFolder::Name> ContentFolder::NamesOf(Backup::File::YMetadataBase& metadata)
{
    const Backup::YJobPath path = metadata.GetFilePath(0);
    std::vector<Name> names;
    for (YString& restored : PlaceOf(metadata, 0))
        names.push_back({path.GetComponent(names.size()).m_name, std::move(restored)});
    return names;
}

// A volume's own name may hold a slash, which no file's name does.
const YString& ContentFolder::Choose(const YDirectory& parent, const Name& name)
{
    struct stat ignored;
    const bool isUsable = name.own == name.restored || (name.own.Bytes().find('/') == std::string::npos &&
                                                        parent.StatIfPresent(name.own, ignored));
    return isUsable ? name.own : name.restored;
}

} // namespace Agent
