#include "Krt/File/Unix/AttributeTarget.h"

#include <sys/xattr.h>

#include <cerrno>

namespace Krt::File {

// The kernel has no call for an entry's attributes. A path through the descriptor follows that one magic link
// and, with the calls for links, none at the name.
AttributeTarget::AttributeTarget(int directory, const char* name, const char*)
    : m_entryPath("/proc/self/fd/" + std::to_string(directory) + "/" + name), m_path(m_entryPath.c_str())
{}

ssize_t AttributeTarget::List(char* buffer, std::size_t size) const
{
    return m_path ? llistxattr(m_path, buffer, size) : flistxattr(m_handle.Get(), buffer, size);
}

ssize_t AttributeTarget::Get(const char* name, void* buffer, std::size_t size) const
{
    return m_path ? lgetxattr(m_path, name, buffer, size) : fgetxattr(m_handle.Get(), name, buffer, size);
}

int AttributeTarget::Set(const char* name, const void* data, std::size_t size, unsigned int flags) const
{
    return m_path ? lsetxattr(m_path, name, data, size, static_cast<int>(flags))
                  : fsetxattr(m_handle.Get(), name, data, size, static_cast<int>(flags));
}

bool AttributeTarget::IsMissing(int error)
{
    return error == ENODATA;
}

} // namespace Krt::File
