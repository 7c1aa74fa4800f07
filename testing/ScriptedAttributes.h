// Stands in for the kernel's answers about extended attributes: a file system that offers more than the real
// one may hold, and changes under the caller's eyes. Takes the place of two functions of the C library, so
// one source of a program includes it.
#pragma once

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Testing {

/// In force for as long as it lives. By itself the value of an attribute is its name.
class ScriptedAttributes
{
public:
    /// `names` says at each call what is there, a NUL behind each name.
    explicit ScriptedAttributes(std::function<std::string()> names)
        : list([names](char* buffer, std::size_t size) { return Answer(names(), buffer, size); }),
          get([](const std::string& name, char* buffer, std::size_t size) {
              return Answer(name, buffer, size);
          })
    {
        s_current = this;
    }
    ~ScriptedAttributes() { s_current = nullptr; }
    ScriptedAttributes(const ScriptedAttributes&) = delete;
    ScriptedAttributes& operator=(const ScriptedAttributes&) = delete;

    static ssize_t Answer(const std::string& bytes, char* buffer, std::size_t size)
    {
        if (size != 0 && size < bytes.size())
            return Fail(ERANGE);
        std::copy_n(bytes.begin(), std::min(size, bytes.size()), buffer);
        return static_cast<ssize_t>(bytes.size());
    }
    static ssize_t Fail(int error)
    {
        errno = error;
        return -1;
    }

    std::function<ssize_t(char*, std::size_t)> list;
    std::function<ssize_t(const std::string&, char*, std::size_t)> get;
    int calls = 0;

    static inline ScriptedAttributes* s_current = nullptr;
};

} // namespace Testing

extern "C" {
[[gnu::visibility("default")]] ssize_t llistxattr(const char* path, char* buffer, size_t size)
{
    Testing::ScriptedAttributes* const script = Testing::ScriptedAttributes::s_current;
    if (script == nullptr)
        return syscall(SYS_llistxattr, path, buffer, size);
    ++script->calls;
    return script->list(buffer, size);
}
[[gnu::visibility("default")]] ssize_t lgetxattr(const char* path, const char* name, void* buffer,
                                                 size_t size)
{
    Testing::ScriptedAttributes* const script = Testing::ScriptedAttributes::s_current;
    if (script == nullptr)
        return syscall(SYS_lgetxattr, path, name, buffer, size);
    ++script->calls;
    return script->get(name, static_cast<char*>(buffer), size);
}
}
