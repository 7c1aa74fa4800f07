// The C library's open(), for programs that replace the table of mounts.
#include "testing/MountTable.h"

#include <cstdarg>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

const char* Testing::MountTable::s_file = nullptr;

extern "C" [[gnu::visibility("default")]] int open(const char* path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, Testing::MountTable::Replaced(path), flags, mode));
}
