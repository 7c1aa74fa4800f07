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

// A mount without a source has a line that begins with a blank. getmntent_r skips that, so each field holds
// the next one's text. A type never begins with a slash, and a directory always does.
void RestoreEmptySource(mntent& entry)
{
    static char s_empty[] = "";
    if (entry.mnt_dir[0] == '/' || entry.mnt_fsname[0] != '/')
        return;
    entry.mnt_opts = entry.mnt_type;
    entry.mnt_type = entry.mnt_dir;
    entry.mnt_dir = entry.mnt_fsname;
    entry.mnt_fsname = s_empty;
}

// The kernel also escapes '#', though not in directories, and getmntent_r leaves that. A backslash in front
// of these very digits reads like it. Looked for by bytes: a source needn't be UTF-8.
YString WithHashes(const char* text)
{
    constexpr std::string_view Escaped = "\\043";
    std::string decoded(text);
    for (std::size_t at = 0; (at = decoded.find(Escaped, at)) != std::string::npos; ++at)
        decoded.replace(at, Escaped.size(), "#");
    return YString(std::move(decoded));
}

} // namespace

std::vector<MountEntry> ListMountEntries()
{
    std::vector<MountEntry> entries;
    const std::unique_ptr<FILE, TableCloser> table(setmntent(s_table, "re"));
    if (!table)
        return entries;
    const auto line = std::make_unique_for_overwrite<char[]>(LineBytes);
    mntent entry;
    while (getmntent_r(table.get(), &entry, line.get(), LineBytes) != nullptr) {
        RestoreEmptySource(entry);
        entries.push_back({WithHashes(entry.mnt_type), entry.mnt_dir, WithHashes(entry.mnt_fsname),
                           hasmntopt(&entry, MNTOPT_RO) != nullptr});
    }
    return entries;
}

void SetMountTableForTesting(const char* file)
{
    s_table = file != nullptr ? file : SystemTable;
}

} // namespace Krt::Volume
