#include "Krt/Volume/MountTable.h"

#include <cstdio>
#include <memory>
#include <mntent.h>

namespace Krt::Volume {

namespace {

// The process's own view; /etc/mtab may be of another mount namespace.
constexpr const char* SystemTable = "/proc/self/mounts";
const char* s_table = SystemTable;

// A mount directory may take 4 KiB, each byte escaped as four, and options of layered file systems are as
// long.
constexpr int LineBytes = 0x10000;

struct TableCloser
{
    void operator()(FILE* table) const { endmntent(table); }
};

} // namespace

std::vector<MountEntry> ListMountEntries()
{
    std::vector<MountEntry> entries;
    const std::unique_ptr<FILE, TableCloser> table(setmntent(s_table, "re"));
    if (!table)
        return entries;
    const auto line = std::make_unique_for_overwrite<char[]>(LineBytes);
    mntent entry;
    while (getmntent_r(table.get(), &entry, line.get(), LineBytes) != nullptr)
        entries.push_back(
            {entry.mnt_type, entry.mnt_dir, entry.mnt_fsname, hasmntopt(&entry, MNTOPT_RO) != nullptr});
    return entries;
}

void SetMountTableForTesting(const char* file)
{
    s_table = file != nullptr ? file : SystemTable;
}

} // namespace Krt::Volume
