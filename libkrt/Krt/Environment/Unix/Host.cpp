#include "Krt/Environment/Host.h"

#include "Krt/Exception/Raise.h"

#include <array>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Krt::Environment {

YString GetHostName()
{
    std::array<char, 1024> name{};
    KRT_SYSCALL(gethostname(name.data(), name.size() - 1), "Can't read the host's name");
    return name.data();
}

unsigned int SetFileCreationMask(unsigned int mask)
{
    return umask(static_cast<mode_t>(mask));
}

void RaiseDescriptorLimit()
{
    rlimit limit{};
    KRT_SYSCALL(getrlimit(RLIMIT_NOFILE, &limit), "Can't read the limit of open files");
    limit.rlim_cur = limit.rlim_max;
    // macOS rejects its own unlimited maximum; the limit then stays unchanged.
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

} // namespace Krt::Environment
