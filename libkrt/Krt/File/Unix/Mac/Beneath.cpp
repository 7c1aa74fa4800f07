#include "Krt/File/Unix/Beneath.h"

#include <sys/stat.h>

namespace Krt::File {

// The caller goes component by component.
Util::OsResult<Util::YUnxHandle> OpenBeneath(int, const char*)
{
    return {Util::YUnxHandle(), ENOSYS};
}

Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode)
{
    return Util::CallSystem([&] { return fchmod(directory, mode); });
}

} // namespace Krt::File
