#include "Krt/Volume/MountTable.h"

#include <mutex>
#include <sys/mount.h>
#include <sys/param.h>

namespace Krt::Volume {

std::vector<MountEntry> ListMountEntries()
{
    // The array belongs to the system, one for the whole process: the next call overwrites it.
    static std::mutex s_mutex;
    const std::lock_guard<std::mutex> lock(s_mutex);
    struct statfs* table = nullptr;
    const int count = getmntinfo(&table, 0);
    std::vector<MountEntry> entries;
    for (int i = 0; i < count; ++i)
        entries.push_back({table[i].f_fstypename, table[i].f_mntonname, table[i].f_mntfromname,
                           (table[i].f_flags & MNT_RDONLY) != 0});
    return entries;
}

} // namespace Krt::Volume
