#include "Krt/Volume/MountTable.h"

#include <fstream>
#include <mutex>
#include <string>
#include <sys/mount.h>
#include <sys/param.h>

namespace Krt::Volume {

namespace {

const char* s_table = nullptr;

std::vector<MountEntry> ReadTable(const char* file)
{
    std::vector<MountEntry> entries;
    std::ifstream table(file);
    for (std::string source, directory, type, options; table >> source >> directory >> type >> options;) {
        const bool readOnly = ("," + options + ",").find(",ro,") != std::string::npos;
        entries.push_back({type.c_str(), directory.c_str(), source.c_str(), readOnly});
    }
    return entries;
}

} // namespace

std::vector<MountEntry> ListMountEntries()
{
    if (s_table != nullptr)
        return ReadTable(s_table);
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

void SetMountTableForTesting(const char* file)
{
    s_table = file;
}

} // namespace Krt::Volume
