#include "Krt/File/OpenFile.h"
#include "Krt/File/Unix/Descriptor.h"
#include "Krt/Util/Retry.h"

#include <sys/xattr.h>

namespace Krt::File {

void RemoveAccessLists(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    // Most have no attributes at all, which one call tells.
    if (flistxattr(descriptor, nullptr, 0) == 0)
        return;
    for (const char* list : {"system.posix_acl_access", "system.posix_acl_default"}) {
        // Removing takes the owner's rights even where there is nothing to remove.
        if (fgetxattr(descriptor, list, nullptr, 0) < 0 && (errno == ENODATA || errno == ENOTSUP))
            continue;
        if (Util::RetryOnInterrupt([&] { return fremovexattr(descriptor, list); }) < 0 && errno != ENODATA)
            KRT_RAISE_OS("Failed to remove access list of open file");
    }
}

} // namespace Krt::File
