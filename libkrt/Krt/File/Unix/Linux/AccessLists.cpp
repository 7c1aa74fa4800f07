#include "Krt/File/OpenFile.h"
#include "Krt/File/Unix/Arguments.h"

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
        const int looked = Util::CallSystem([&] { return fgetxattr(descriptor, list, nullptr, 0); }).error;
        if (looked == ENODATA || looked == ENOTSUP)
            continue;
        const int removed = Util::CallSystem([&] { return fremovexattr(descriptor, list); }).error;
        if (removed != 0 && removed != ENODATA)
            KRT_RAISE_OS(removed, "Failed to remove access list of open file");
    }
}

} // namespace Krt::File
