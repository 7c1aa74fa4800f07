#include "agent/Restore/Staging.h"

#include "Krt/File/File.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;

namespace {

// Another failure is on its way, and has more to tell.
void RemoveQuietly(const YDirectory& parent, const YString& name) noexcept
{
    try {
        parent.RemoveDirectory(name);
    } catch (...) {
    }
}

YDirectory MakePrivate(const YDirectory& parent, const YString& name)
{
    parent.MakeDirectory(name, S_IRWXU);
    try {
        return parent.OpenDirectory(name);
    } catch (...) {
        RemoveQuietly(parent, name);
        throw;
    }
}

} // namespace

Staging::Staging(const YDirectory& parent, const YString& name) : m_directory(MakePrivate(parent, name))
{
    try {
        Krt::File::RemoveAccessLists(m_directory.GetHandle());
        const struct stat status = m_directory.Stat();
        m_isPrivate = status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
    } catch (...) {
        RemoveQuietly(parent, name);
        throw;
    }
}

} // namespace Agent
