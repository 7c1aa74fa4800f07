#include "agent/Run/Unix/Users.h"

#include "Krt/Util/YUnxHandle.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/acl.h>

namespace Agent {

bool AreThereOtherUsers()
{
    return true;
}

namespace {

bool LetsWrite(acl_entry_t entry)
{
    acl_tag_t tag;
    acl_permset_t permissions;
    if (acl_get_tag_type(entry, &tag) != 0 || acl_get_permset(entry, &permissions) != 0)
        return true;
    // The first two are also the rights to add a file and a directory.
    constexpr acl_perm_t Writing[] = {ACL_WRITE_DATA,   ACL_APPEND_DATA,    ACL_DELETE,
                                      ACL_DELETE_CHILD, ACL_WRITE_SECURITY, ACL_CHANGE_OWNER};
    for (const acl_perm_t right : Writing) {
        if (tag == ACL_EXTENDED_ALLOW && acl_get_perm_np(permissions, right) != 0)
            return true;
    }
    return false;
}

} // namespace

bool MayListLetWrite(const Krt::File::YDirectory& directory, const Krt::YString& name, const struct stat&)
{
    const auto opened = Krt::Util::OwnAboveStandardStreams(Krt::Util::CallSystem([&] {
        return openat(directory.GetHandle().Get(), name.CStr(),
                      O_RDONLY | O_SYMLINK | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }));
    if (!opened)
        return true;
    const acl_t list = acl_get_fd_np(opened.value.Get(), ACL_TYPE_EXTENDED);
    if (list == nullptr)
        return errno != ENOENT && errno != ENOTSUP;
    bool lets = false;
    acl_entry_t entry;
    for (int which = ACL_FIRST_ENTRY; !lets && acl_get_entry(list, which, &entry) == 0;
         which = ACL_NEXT_ENTRY)
        lets = LetsWrite(entry);
    acl_free(list);
    return lets;
}

} // namespace Agent
