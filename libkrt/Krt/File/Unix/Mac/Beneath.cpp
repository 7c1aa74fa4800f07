#include "Krt/File/Unix/Beneath.h"

#include "Krt/Util/Retry.h"

#include <sys/stat.h>

namespace Krt::File {

using Util::RetryOnInterrupt;

// The caller goes component by component.
int OpenBeneath(int, const char*)
{
    errno = ENOSYS;
    return -1;
}

int SetModeOfDirectory(int directory, mode_t mode)
{
    return RetryOnInterrupt([&] { return fchmod(directory, mode); });
}

} // namespace Krt::File
