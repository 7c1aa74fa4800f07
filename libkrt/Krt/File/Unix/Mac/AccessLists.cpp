#include "Krt/File/OpenFile.h"
#include "Krt/File/Unix/Arguments.h"

#include <fcntl.h>
#include <sys/acl.h>
#include <sys/stat.h>

namespace Krt::File {

void RemoveAccessLists(const Util::YUnxHandle& handle)
{
    const int descriptor = DescriptorOf(handle, __func__);
    // Removing takes the owner's rights even where there is nothing to remove.
    const acl_t list = acl_get_fd_np(descriptor, ACL_TYPE_EXTENDED);
    if (list == nullptr && (errno == ENOENT || errno == ENOTSUP))
        return;
    if (list != nullptr)
        acl_free(list);
    const filesec_t security = filesec_init();
    if (security == nullptr)
        KRT_RAISE_OS(errno, "Failed to remove access list of open file");
    filesec_set_property(security, FILESEC_ACL, _FILESEC_REMOVE_ACL);
    const auto changed = Util::CallSystem([&] { return fchmodx_np(descriptor, security); });
    filesec_free(security);
    KRT_OS_VALUE(changed, "Failed to remove access list of open file");
}

} // namespace Krt::File
