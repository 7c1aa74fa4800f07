#include "agent/Restore/Staging.h"

#include "Krt/Exception/YError.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;

namespace {

YDirectory MakePrivate(const YDirectory& parent, const YString& name)
{
    parent.MakeDirectory(name, S_IRWXU);
    try {
        return parent.OpenDirectory(name);
    } catch (const Krt::Exception::YError&) {
        parent.RemoveDirectory(name);
        throw;
    }
}

} // namespace

Staging::Staging(const YDirectory& parent, const YString& name) : m_directory(MakePrivate(parent, name))
{
    const struct stat status = m_directory.Stat();
    m_isPrivate = status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

} // namespace Agent
