#include "agent/Backup/Unix/Holes.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

std::uint64_t EndOfHole(const Krt::Util::YUnxHandle& file, std::uint64_t offset)
{
    const off_t data = lseek(file.Get(), static_cast<off_t>(offset), SEEK_DATA);
    if (data >= 0)
        return static_cast<std::uint64_t>(data);
    struct stat status;
    if (errno != ENXIO || fstat(file.Get(), &status) != 0 || static_cast<off_t>(offset) >= status.st_size)
        return offset;
    return static_cast<std::uint64_t>(status.st_size); // the rest of the file is a hole
}

} // namespace Agent
