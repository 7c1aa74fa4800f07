#include "agent/Restore/Staging.h"

#include "Krt/File/File.h"
#include "Krt/Util/YScope.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;

Staging Staging::Create(const YDirectory& parent, const YString& name)
{
    parent.MakeDirectory(name, S_IRWXU);
    bool isComplete = false;
    const Krt::Util::YScope cleanUp([&] {
        if (!isComplete)
            parent.RemoveDirectory(name);
    });
    YDirectory directory = parent.OpenDirectory(name);
    Krt::File::RemoveAccessLists(directory.GetHandle());
    const struct stat status = directory.Stat();
    isComplete = true;
    return Staging(std::move(directory),
                   status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0);
}

} // namespace Agent
