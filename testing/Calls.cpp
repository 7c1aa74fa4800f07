#include "testing/Calls.h"

#include "testing/MountTable.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>

namespace Testing {

constinit CallFilter g_callFilter = nullptr;
const char* MountTable::s_file = nullptr;

namespace {

std::optional<long> Ask(const Call& call)
{
    return g_callFilter == nullptr ? std::nullopt : g_callFilter(call);
}

// Returns the C library's own function.
template <class Function>
Function* Real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

} // namespace Testing

using Testing::Ask;
using Testing::Real;

// Defines the function in this executable, where the shared libraries find it first. The fields of the Call
// come last.
#define CALL(result, name, parameters, arguments, ...)                                                       \
    [[gnu::visibility("default")]] result name parameters                                                    \
    {                                                                                                        \
        static const auto real = Real<result parameters>(#name);                                             \
        const auto answer = Ask({.function = #name, __VA_ARGS__});                                           \
        return answer ? (result)(*answer) : real arguments;                                                  \
    }
#define OF_PATH .name = path
#define OF_FILE .descriptor = fd
#define OF_ENTRY .descriptor = fd, .name = path

extern "C" {
CALL(ssize_t, read, (int fd, void* data, size_t count), (fd, data, count), OF_FILE, .count = &count)
CALL(ssize_t, write, (int fd, const void* data, size_t count), (fd, data, count), OF_FILE, .count = &count)
CALL(ssize_t, pread, (int fd, void* data, size_t count, off_t at), (fd, data, count, at), OF_FILE,
     .data = data, .count = &count)
CALL(ssize_t, pwrite, (int fd, const void* data, size_t count, off_t at), (fd, data, count, at), OF_FILE,
     .count = &count)

CALL(int, stat, (const char* path, struct stat* status), (path, status), OF_PATH)
CALL(int, lstat, (const char* path, struct stat* status), (path, status), OF_PATH)
CALL(int, fstat, (int fd, struct stat* status), (fd, status), OF_FILE)
CALL(int, fstatat, (int fd, const char* path, struct stat* status, int flags), (fd, path, status, flags),
     OF_ENTRY)
CALL(int, statfs, (const char* path, struct statfs* status), (path, status), OF_PATH)
CALL(int, statvfs, (const char* path, struct statvfs* status), (path, status), OF_PATH)
CALL(int, mkdir, (const char* path, mode_t mode), (path, mode), OF_PATH)
CALL(int, mkdirat, (int fd, const char* path, mode_t mode), (fd, path, mode), OF_ENTRY)
CALL(int, mkfifoat, (int fd, const char* path, mode_t mode), (fd, path, mode), OF_ENTRY)
CALL(int, mknodat, (int fd, const char* path, mode_t mode, dev_t device), (fd, path, mode, device), OF_ENTRY)
CALL(int, unlink, (const char* path), (path), OF_PATH)
CALL(int, unlinkat, (int fd, const char* path, int flags), (fd, path, flags), OF_ENTRY)
CALL(int, renameat, (int fd, const char* path, int to, const char* newPath), (fd, path, to, newPath),
     OF_ENTRY)
CALL(int, link, (const char* path, const char* newPath), (path, newPath), OF_PATH)
CALL(int, linkat, (int fd, const char* path, int to, const char* newPath, int flags),
     (fd, path, to, newPath, flags), OF_ENTRY)
CALL(int, symlink, (const char* target, const char* path), (target, path), OF_PATH)
CALL(int, symlinkat, (const char* target, int fd, const char* path), (target, fd, path), OF_ENTRY)
CALL(int, chmod, (const char* path, mode_t mode), (path, mode), OF_PATH)
CALL(int, fchmod, (int fd, mode_t mode), (fd, mode), OF_FILE)
CALL(int, fchmodat, (int fd, const char* path, mode_t mode, int flags), (fd, path, mode, flags), OF_ENTRY)
CALL(int, chown, (const char* path, uid_t user, gid_t group), (path, user, group), OF_PATH)
CALL(int, fchown, (int fd, uid_t user, gid_t group), (fd, user, group), OF_FILE)
CALL(int, fchownat, (int fd, const char* path, uid_t user, gid_t group, int flags),
     (fd, path, user, group, flags), OF_ENTRY)
CALL(int, utime, (const char* path, const struct utimbuf* times), (path, times), OF_PATH)
CALL(int, utimensat, (int fd, const char* path, const timespec* times, int flags), (fd, path, times, flags),
     OF_ENTRY)
CALL(int, futimens, (int fd, const timespec* times), (fd, times), OF_FILE)
CALL(int, ftruncate, (int fd, off_t size), (fd, size), OF_FILE)
CALL(int, fsync, (int fd), (fd), OF_FILE)
CALL(int, syncfs, (int fd), (fd), OF_FILE)
CALL(int, lsetxattr, (const char* path, const char* name, const void* value, size_t size, int flags),
     (path, name, value, size, flags), OF_PATH, .attribute = name)
CALL(int, fsetxattr, (int fd, const char* name, const void* value, size_t size, int flags),
     (fd, name, value, size, flags), OF_FILE, .attribute = name)
CALL(int, fremovexattr, (int fd, const char* name), (fd, name), OF_FILE, .attribute = name)
CALL(ssize_t, readlink, (const char* path, char* target, size_t size), (path, target, size), OF_PATH,
     .data = target, .size = size)
CALL(ssize_t, readlinkat, (int fd, const char* path, char* target, size_t size), (fd, path, target, size),
     OF_ENTRY, .data = target, .size = size)
CALL(ssize_t, getdents64, (int fd, void* entries, size_t size), (fd, entries, size), OF_FILE, .data = entries,
     .size = size)
CALL(ssize_t, llistxattr, (const char* path, char* names, size_t size), (path, names, size), OF_PATH,
     .data = names, .size = size)
CALL(ssize_t, flistxattr, (int fd, char* names, size_t size), (fd, names, size), OF_FILE, .data = names,
     .size = size)
CALL(ssize_t, lgetxattr, (const char* path, const char* name, void* value, size_t size),
     (path, name, value, size), OF_PATH, .attribute = name, .data = value, .size = size)
CALL(ssize_t, fgetxattr, (int fd, const char* name, void* value, size_t size), (fd, name, value, size),
     OF_FILE, .attribute = name, .data = value, .size = size)

CALL(int, getentropy, (void* data, size_t size), (data, size), .data = data, .size = size,
     .isRestarted = true)
CALL(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), OF_FILE, .isRestarted = true)
CALL(FILE*, fopen, (const char* path, const char* mode), (path, mode), OF_PATH, .failed = 0,
     .isRestarted = true)
CALL(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* file), (data, size, count, file),
     .failed = 0, .isRestarted = true)
CALL(int, fflush, (FILE * file), (file), .isRestarted = true)

// With or without a mode.
[[gnu::visibility("default")]] int open(const char* path, int flags, ...)
{
    static const auto real = Real<int(const char*, int, ...)>("open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Ask({.function = "open", OF_PATH}) ? -1 : real(Testing::MountTable::Replaced(path), flags, mode);
}
[[gnu::visibility("default")]] int openat(int fd, const char* path, int flags, ...)
{
    static const auto real = Real<int(int, const char*, int, ...)>("openat");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return Ask({.function = "openat", OF_ENTRY}) ? -1 : real(fd, path, flags, mode);
}

// openat2 has no function in the C library; of fcntl, only F_DUPFD_CLOEXEC creates a descriptor. Like the C
// library's own, syscall reads six arguments, however few the caller passed: the sixth is then a foreign word
// of the stack.
[[gnu::visibility("default"), gnu::no_sanitize_address]] long syscall(long number, ...)
{
    static const auto real = Real<long(long, ...)>("syscall");
    va_list rest;
    va_start(rest, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(rest, long);
    va_end(rest);
    if (number == SYS_openat2 && Ask({.function = "openat2",
                                      .descriptor = static_cast<int>(arguments[0]),
                                      .name = reinterpret_cast<const char*>(arguments[1])}))
        return -1;
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}
[[gnu::visibility("default")]] int fcntl(int fd, int command, ...)
{
    static const auto real = Real<int(int, int, ...)>("fcntl");
    va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    const bool isAnswered = command == F_DUPFD_CLOEXEC && Ask({.function = "fcntl", OF_FILE});
    return isAnswered ? -1 : real(fd, command, argument);
}

// A signal leaves the descriptor open; after any other failure it is closed.
[[gnu::visibility("default")]] int close(int fd)
{
    static const auto real = Real<int(int)>("close");
    const bool fails = Ask({.function = "close", OF_FILE}).has_value();
    const int error = errno;
    if (fails && error == EINTR)
        return -1;
    const int result = real(fd);
    if (!fails)
        return result;
    errno = error;
    return -1;
}
}
