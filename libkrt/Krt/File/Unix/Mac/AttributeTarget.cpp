#include "Krt/File/Unix/AttributeTarget.h"

#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <sys/xattr.h>

namespace Krt::File {

// O_SYMLINK opens a link itself, so that the calls for open files serve for entries of every type.
AttributeTarget::AttributeTarget(int directory, const char* name, const char* function)
{
    auto opened = Util::OwnAboveStandardStreams(Util::CallSystem(
        [&] { return openat(directory, name, O_RDONLY | O_SYMLINK | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
    if (!opened)
        KRT_RAISE_OS_AS(function, MessageType::General, opened.error,
                        "Failed to open for extended attributes: " << name);
    m_handle = std::move(opened.value);
}

ssize_t AttributeTarget::List(char* buffer, std::size_t size) const
{
    return m_path ? listxattr(m_path, buffer, size, XATTR_NOFOLLOW)
                  : flistxattr(m_handle.Get(), buffer, size, 0);
}

ssize_t AttributeTarget::Get(const char* name, void* buffer, std::size_t size) const
{
    return m_path ? getxattr(m_path, name, buffer, size, 0, XATTR_NOFOLLOW)
                  : fgetxattr(m_handle.Get(), name, buffer, size, 0, 0);
}

int AttributeTarget::Set(const char* name, const void* data, std::size_t size, unsigned int flags) const
{
    return m_path ? setxattr(m_path, name, data, size, 0, static_cast<int>(flags) | XATTR_NOFOLLOW)
                  : fsetxattr(m_handle.Get(), name, data, size, 0, static_cast<int>(flags));
}

bool AttributeTarget::IsMissing(int error)
{
    return error == ENOATTR;
}

} // namespace Krt::File
