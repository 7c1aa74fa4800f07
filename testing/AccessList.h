// Access lists for tests: rights of single users in addition to the mode.
#pragma once

#include <string>
#include <sys/xattr.h>

namespace Testing {

/// Sets an access list by which the user 1234 has the rights of the group. `which` is "access", or "default"
/// for the list that new entries of a directory inherit. Returns false if the file system has no access
/// lists.
inline bool GiveAccessList(const std::string& path, const std::string& which)
{
    // A version, then the tag, rights and id of the owner, that user, the group, the mask and others.
    constexpr unsigned char List[] = {2,  0, 0, 0,                                  //
                                      1,  0, 7, 0, 255,        255,       255, 255, //
                                      2,  0, 7, 0, 1234 & 255, 1234 >> 8, 0,   0,   //
                                      4,  0, 6, 0, 255,        255,       255, 255, //
                                      16, 0, 6, 0, 255,        255,       255, 255, //
                                      32, 0, 4, 0, 255,        255,       255, 255};
    return setxattr(path.c_str(), ("system.posix_acl_" + which).c_str(), List, sizeof List, 0) == 0;
}

} // namespace Testing
