// MountBench [--quick]: listing a mount table, in nanoseconds an entry and as a multiple of a loop that calls
// getmntent_r and keeps nothing, with which it takes turns; and rebuilding the list of volumes, in seconds.
#include "Backup/Volume/Unix/YVolumeManager.h"
#include "Krt/Volume/MountTable.h"
#include "bench/Measure.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mntent.h>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int Rounds = 9;

// As a machine with containers has them: devices, layers with long options, file systems without a device.
void WriteMixed(FILE* file, int entries)
{
    for (int i = 0; i < entries; ++i) {
        if (i % 3 == 0)
            std::fprintf(file, "/dev/mapper/group-volume%d /srv/data\\040%d ext4 rw,relatime 0 0\n", i, i);
        else if (i % 3 == 1)
            std::fprintf(file, "overlay /var/lib/containers/%d/merged overlay rw,relatime,lowerdir=%s 0 0\n",
                         i, std::string(200, 'l').c_str());
        else
            std::fprintf(file, "tmpfs /run/user/%d tmpfs rw,nosuid,nodev,size=1611404k,mode=700 0 0\n", i);
    }
}

// Bind mounts of the root's own device, as containers have them for their volumes.
void WriteBinds(FILE* file, int entries)
{
    std::fprintf(file, "/dev/root / ext4 rw,relatime 0 0\n");
    for (int i = 1; i < entries; ++i)
        std::fprintf(file, "/dev/root /var/lib/pods/%d/volumes/data ext4 rw,relatime 0 0\n", i);
}

const char* s_table = nullptr;

// A table in place of the kernel's while the object exists.
class Table
{
public:
    Table(int entries, void (*write)(FILE*, int))
    {
        FILE* const file = fdopen(mkstemp(m_name), "w");
        write(file, entries);
        std::fclose(file);
        s_table = m_name;
    }
    ~Table()
    {
        s_table = nullptr;
        unlink(m_name);
    }
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    const char* Name() const { return m_name; }

private:
    char m_name[32] = "/tmp/backup-mounts-XXXXXX";
};

std::size_t CountBare(const char* name)
{
    constexpr int LineBytes = 0x10000;
    const auto line = std::make_unique_for_overwrite<char[]>(LineBytes);
    FILE* const file = setmntent(name, "re");
    std::size_t count = 0;
    for (mntent entry; getmntent_r(file, &entry, line.get(), LineBytes) != nullptr;)
        ++count;
    endmntent(file);
    return count;
}

void Compare(int entries, int lists)
{
    const Table table(entries, WriteMixed);
    std::size_t listed = 0;
    const auto seconds = Bench::SecondsInTurns(Rounds, {[&] {
                                                            for (int i = 0; i < lists; ++i)
                                                                listed +=
                                                                    Krt::Volume::ListMountEntries().size();
                                                        },
                                                        [&] {
                                                            for (int i = 0; i < lists; ++i)
                                                                listed -= CountBare(table.Name());
                                                        }});
    if (listed != 0)
        std::abort();
    const std::string name = "mounts." + std::to_string(entries);
    Bench::PrintRow((name + ".ours").c_str(), seconds[0] * 1e9 / lists / entries, "ns");
    Bench::PrintRow((name + ".getmntent").c_str(), seconds[1] * 1e9 / lists / entries, "ns");
    Bench::PrintRow(name.c_str(), seconds[0] / seconds[1], "x");
}

void Rebuild(int entries)
{
    const Table table(entries, WriteBinds);
    Backup::Volume::YVolumeManager manager;
    const double seconds = Bench::Seconds(Rounds, [&] { manager.RebuildVolumeList(); });
    const auto volumes = manager.GetVolumeList(0xFFFFFFFF, false);
    if (volumes.size() != static_cast<std::size_t>(entries))
        std::abort();
    Bench::PrintRow(("mounts.rebuild." + std::to_string(entries)).c_str(), seconds, "s");
}

} // namespace

// The C library's, for the library: opens the table that is in force.
extern "C" [[gnu::visibility("default")]] int open(const char* path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    if (s_table != nullptr && std::strcmp(path, "/proc/self/mounts") == 0)
        path = s_table;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

int main(int argc, char** argv)
{
    const int scale = argc > 1 && std::string(argv[1]) == "--quick" ? 1 : 20;
    Compare(20, 50 * scale);
    Compare(1000, 2 * scale);
    Rebuild(5000);
    return 0;
}
