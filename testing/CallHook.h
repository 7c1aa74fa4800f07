// Lets a test act between two system calls of the code under test, at points that are named by the call and
// the entry it is about, and let calls fail. Takes the place of functions of the C library, so one source of
// a program includes it.
#pragma once

#include "testing/Program.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace Testing {

struct HookedCall
{
    std::string function;
    int descriptor; ///< of the directory for a name, else of the file itself
    std::string name;
};

class CallHook
{
public:
    /// Before each call of the process, for as long as the hook lives. The action's own calls are not told.
    explicit CallHook(std::function<void(const HookedCall&)> action) : m_action(std::move(action))
    {
        s_current = this;
    }
    ~CallHook() { s_current = nullptr; }
    CallHook(const CallHook&) = delete;
    CallHook& operator=(const CallHook&) = delete;

    /// For the action: the call fails so. Calls with a variable number of arguments and pread don't.
    static void Fail(int error) { s_error = error; }

    /// Without a name, the path of what the descriptor holds counts. Returns the error of a call that fails.
    static int Tell(const char* function, int descriptor, const char* name = nullptr)
    {
        CallHook* const hook = std::exchange(s_current, nullptr);
        if (hook == nullptr)
            return 0;
        const int before = errno;
        hook->m_action({function, descriptor, name != nullptr ? name : PathOf(descriptor)});
        s_current = hook;
        errno = before;
        return std::exchange(s_error, 0);
    }

private:
    static std::string PathOf(int descriptor)
    {
        char path[4096];
        const ssize_t size =
            readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), path, sizeof path);
        return std::string(path, static_cast<std::size_t>(size < 0 ? 0 : size));
    }

    std::function<void(const HookedCall&)> m_action;
    static inline CallHook* s_current = nullptr;
    static inline int s_error = 0;
};

/// For a run of the program with this action before its calls.
inline ProgramSettings Hooked(const std::function<void(const HookedCall&)>& action)
{
    const auto prepare = [action] {
        static const CallHook hook(action);
    };
    return {.user = 0, .prepare = prepare, .isLinked = true};
}

template <class Function>
Function* Unhooked(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace Testing

#define TESTING_HOOK(result, function, parameters, arguments, descriptor, name)                              \
    [[gnu::visibility("default")]] result function parameters noexcept                                       \
    {                                                                                                        \
        if (const int error = Testing::CallHook::Tell(#function, descriptor, name)) {                        \
            errno = error;                                                                                   \
            return -1;                                                                                       \
        }                                                                                                    \
        return Testing::Unhooked<result parameters>(#function) arguments;                                    \
    }

extern "C" {
[[gnu::visibility("default")]] int openat(int directory, const char* name, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    Testing::CallHook::Tell("openat", directory, name);
    return Testing::Unhooked<int(int, const char*, int, ...)>("openat")(directory, name, flags, mode);
}
[[gnu::visibility("default")]] int open(const char* path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    Testing::CallHook::Tell("open", -1, path);
    return Testing::Unhooked<int(const char*, int, ...)>("open")(path, flags, mode);
}
[[gnu::visibility("default")]] ssize_t pread(int file, void* data, size_t size, off_t offset)
{
    Testing::CallHook::Tell("pread", file);
    return Testing::Unhooked<ssize_t(int, void*, size_t, off_t)>("pread")(file, data, size, offset);
}
// What is closed is closed, whatever is told.
[[gnu::visibility("default")]] int close(int file)
{
    const int error = Testing::CallHook::Tell("close", file);
    const long result = syscall(SYS_close, file);
    if (error == 0)
        return static_cast<int>(result);
    errno = error;
    return -1;
}
TESTING_HOOK(int, fstatat, (int directory, const char* name, struct stat* status, int flags),
             (directory, name, status, flags), directory, name)
TESTING_HOOK(int, fchmodat, (int directory, const char* name, mode_t mode, int flags),
             (directory, name, mode, flags), directory, name)
TESTING_HOOK(int, fchownat, (int directory, const char* name, uid_t user, gid_t group, int flags),
             (directory, name, user, group, flags), directory, name)
TESTING_HOOK(int, utimensat, (int directory, const char* name, const timespec* times, int flags),
             (directory, name, times, flags), directory, name)
TESTING_HOOK(int, renameat, (int from, const char* name, int to, const char* newName),
             (from, name, to, newName), from, name)
TESTING_HOOK(int, fchown, (int file, uid_t user, gid_t group), (file, user, group), file, nullptr)
TESTING_HOOK(int, unlinkat, (int directory, const char* name, int flags), (directory, name, flags), directory,
             name)
TESTING_HOOK(int, syncfs, (int file), (file), file, nullptr)
TESTING_HOOK(int, stat, (const char* path, struct stat* status), (path, status), -1, path)
TESTING_HOOK(int, lstat, (const char* path, struct stat* status), (path, status), -1, path)
TESTING_HOOK(int, statfs, (const char* path, struct statfs* status), (path, status), -1, path)
TESTING_HOOK(ssize_t, readlink, (const char* path, char* target, size_t size), (path, target, size), -1, path)
TESTING_HOOK(ssize_t, readlinkat, (int directory, const char* name, char* target, size_t size),
             (directory, name, target, size), directory, name)
TESTING_HOOK(ssize_t, lgetxattr, (const char* path, const char* name, void* value, size_t size),
             (path, name, value, size), -1, path)
TESTING_HOOK(ssize_t, llistxattr, (const char* path, char* list, size_t size), (path, list, size), -1, path)
}

#undef TESTING_HOOK
