#include "testing/FaultCalls.h"

#include <openssl/crypto.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <new>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>

namespace Testing {

constinit FaultRun g_faultRun;

namespace {

struct Shared
{
    char struck[64];
    bool isOpenSslStruck;
    unsigned long calls[FaultDomains];
};

// In memory that child processes share with their parent.
Shared& s_shared = *static_cast<Shared*>(
    mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
[[maybe_unused]] const auto s_calls = g_faultRun.calls = s_shared.calls;

bool IsSystemCall(FaultDomain domain)
{
    return domain == FaultDomain::SystemCalls || domain == FaultDomain::Transfers;
}

// The C library's own function, looked up at the first call.
template <class Function>
Function* Real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// What a fault does to a transfer of so many bytes: whether it fails, or how many it moves.
bool FailsTransfer(const char* name, size_t& count)
{
    if (count > 1 && FaultStrikes(FaultDomain::Transfers, name))
        count /= 2;
    return FaultStrikes(FaultDomain::SystemCalls, name);
}

// For what no signal interrupts, and for the C library's streams: who uses those has the kernel repeat.
bool FailsUninterrupted(const char* name)
{
    return (g_faultRun.kind == nullptr || g_faultRun.kind->error != EINTR) &&
           FaultStrikes(FaultDomain::SystemCalls, name);
}

void* Allocate(std::size_t size, std::size_t alignment)
{
    if (FaultStrikes(FaultDomain::Memory, "operator new"))
        throw std::bad_alloc();
    const std::size_t whole = (size + alignment - 1) / alignment * alignment;
    void* const memory = alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__ ? std::malloc(size == 0 ? 1 : size)
                                                                       : std::aligned_alloc(alignment, whole);
    if (memory == nullptr)
        throw std::bad_alloc();
    if (alignment == 1)
        __atomic_fetch_add(&g_faultRun.objects, 1, __ATOMIC_RELAXED);
    return memory;
}

void Free(void* memory)
{
    if (memory != nullptr)
        __atomic_fetch_sub(&g_faultRun.objects, 1, __ATOMIC_RELAXED);
    std::free(memory);
}

void* AllocateCrypto(std::size_t size, const char*, int)
{
    if (size == 0 || FaultStrikes(FaultDomain::Crypto, "CRYPTO_malloc"))
        return nullptr;
    __atomic_fetch_add(&g_faultRun.crypto, 1, __ATOMIC_RELAXED);
    return std::malloc(size);
}

void FreeCrypto(void* memory, const char*, int)
{
    if (memory != nullptr)
        __atomic_fetch_sub(&g_faultRun.crypto, 1, __ATOMIC_RELAXED);
    std::free(memory);
}

void* ReallocateCrypto(void* memory, std::size_t size, const char* file, int line)
{
    if (memory == nullptr)
        return AllocateCrypto(size, file, line);
    if (size == 0)
        FreeCrypto(memory, file, line);
    if (size == 0 || FaultStrikes(FaultDomain::Crypto, "CRYPTO_realloc"))
        return nullptr;
    return std::realloc(memory, size);
}

// Before OpenSSL has any memory, after which it takes no others.
[[maybe_unused]] const int s_isCryptoFollowed =
    CRYPTO_set_mem_functions(AllocateCrypto, ReallocateCrypto, FreeCrypto);

} // namespace

bool FaultStrikes(FaultDomain domain, const char* call)
{
    FaultRun& run = g_faultRun;
    if (!run.isArmed)
        return false;
    const unsigned long number = ++run.calls[static_cast<int>(domain)];
    if (run.kind == nullptr)
        return false;
    const bool isStruck = *StruckCall() != '\0';
    if (domain != run.kind->domain)
        return isStruck && run.kind->starves && !IsSystemCall(domain);
    if (number < run.target || number - run.target >= run.kind->inARow)
        return false;
    if (!isStruck)
        std::strncpy(s_shared.struck, call, sizeof s_shared.struck - 1);
    s_shared.isOpenSslStruck |= std::strcmp(call, "getentropy") == 0;
    if (IsSystemCall(domain))
        errno = run.kind->error;
    return true;
}

const char* StruckCall()
{
    return s_shared.struck;
}

void ForgetStruckCall()
{
    *s_shared.struck = '\0';
    s_shared.isOpenSslStruck = false;
}

bool IsOpenSslStruck()
{
    return s_shared.isOpenSslStruck;
}

} // namespace Testing

using Testing::Allocate;
using Testing::FailsTransfer;
using Testing::FailsUninterrupted;
using Testing::FaultDomain;
using Testing::FaultStrikes;
using Testing::Free;
using Testing::Real;

void* operator new(std::size_t size)
{
    return Allocate(size, 1);
}
void* operator new[](std::size_t size)
{
    return Allocate(size, 1);
}
void* operator new(std::size_t size, std::align_val_t alignment)
{
    return Allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    try {
        return Allocate(size, 1);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept
{
    Free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    Free(memory);
}
void operator delete[](void* memory) noexcept
{
    Free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    Free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    Free(memory);
}
// What has an alignment of its own doesn't count as living: a thread keeps its records of locks until it has
// many.
void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

// A function of the C library that the shared libraries and this program find here first.
#define CALL(result, name, parameters, arguments, fails, failed)                                             \
    [[gnu::visibility("default")]] result name parameters                                                    \
    {                                                                                                        \
        static const auto real = Real<result parameters>(#name);                                             \
        return fails ? failed : real arguments;                                                              \
    }
#define PLAIN_CALL(name, parameters, arguments)                                                              \
    CALL(int, name, parameters, arguments, FaultStrikes(FaultDomain::SystemCalls, #name), -1)
#define SIZED_CALL(name, parameters, arguments)                                                              \
    CALL(ssize_t, name, parameters, arguments, FaultStrikes(FaultDomain::SystemCalls, #name), -1)
#define TRANSFER(name, parameters, arguments)                                                                \
    CALL(ssize_t, name, parameters, arguments, FailsTransfer(#name, count), -1)

extern "C" {
TRANSFER(read, (int fd, void* data, size_t count), (fd, data, count))
TRANSFER(write, (int fd, const void* data, size_t count), (fd, data, count))
TRANSFER(pread, (int fd, void* data, size_t count, off_t at), (fd, data, count, at))
TRANSFER(pwrite, (int fd, const void* data, size_t count, off_t at), (fd, data, count, at))

PLAIN_CALL(stat, (const char* path, struct stat* status), (path, status))
PLAIN_CALL(lstat, (const char* path, struct stat* status), (path, status))
PLAIN_CALL(fstat, (int fd, struct stat* status), (fd, status))
PLAIN_CALL(fstatat, (int fd, const char* path, struct stat* status, int flags), (fd, path, status, flags))
PLAIN_CALL(statvfs, (const char* path, struct statvfs* status), (path, status))
PLAIN_CALL(mkdir, (const char* path, mode_t mode), (path, mode))
PLAIN_CALL(mkdirat, (int fd, const char* path, mode_t mode), (fd, path, mode))
PLAIN_CALL(mkfifoat, (int fd, const char* path, mode_t mode), (fd, path, mode))
PLAIN_CALL(mknodat, (int fd, const char* path, mode_t mode, dev_t device), (fd, path, mode, device))
PLAIN_CALL(unlink, (const char* path), (path))
PLAIN_CALL(unlinkat, (int fd, const char* path, int flags), (fd, path, flags))
PLAIN_CALL(renameat, (int from, const char* path, int to, const char* newPath), (from, path, to, newPath))
PLAIN_CALL(link, (const char* path, const char* newPath), (path, newPath))
PLAIN_CALL(linkat, (int from, const char* path, int to, const char* newPath, int flags),
           (from, path, to, newPath, flags))
PLAIN_CALL(symlink, (const char* target, const char* path), (target, path))
PLAIN_CALL(symlinkat, (const char* target, int fd, const char* path), (target, fd, path))
PLAIN_CALL(chmod, (const char* path, mode_t mode), (path, mode))
PLAIN_CALL(fchmod, (int fd, mode_t mode), (fd, mode))
PLAIN_CALL(fchmodat, (int fd, const char* path, mode_t mode, int flags), (fd, path, mode, flags))
PLAIN_CALL(chown, (const char* path, uid_t user, gid_t group), (path, user, group))
PLAIN_CALL(fchown, (int fd, uid_t user, gid_t group), (fd, user, group))
PLAIN_CALL(fchownat, (int fd, const char* path, uid_t user, gid_t group, int flags),
           (fd, path, user, group, flags))
PLAIN_CALL(utime, (const char* path, const struct utimbuf* times), (path, times))
PLAIN_CALL(utimensat, (int fd, const char* path, const timespec* times, int flags), (fd, path, times, flags))
PLAIN_CALL(futimens, (int fd, const timespec* times), (fd, times))
PLAIN_CALL(ftruncate, (int fd, off_t size), (fd, size))
PLAIN_CALL(flock, (int fd, int operation), (fd, operation))
PLAIN_CALL(lsetxattr, (const char* path, const char* name, const void* value, size_t size, int flags),
           (path, name, value, size, flags))
PLAIN_CALL(fsetxattr, (int fd, const char* name, const void* value, size_t size, int flags),
           (fd, name, value, size, flags))
PLAIN_CALL(fremovexattr, (int fd, const char* name), (fd, name))
SIZED_CALL(readlink, (const char* path, char* target, size_t size), (path, target, size))
SIZED_CALL(readlinkat, (int fd, const char* path, char* target, size_t size), (fd, path, target, size))
SIZED_CALL(getdents64, (int fd, void* entries, size_t size), (fd, entries, size))
SIZED_CALL(llistxattr, (const char* path, char* names, size_t size), (path, names, size))
SIZED_CALL(flistxattr, (int fd, char* names, size_t size), (fd, names, size))
SIZED_CALL(lgetxattr, (const char* path, const char* name, void* value, size_t size),
           (path, name, value, size))
SIZED_CALL(fgetxattr, (int fd, const char* name, void* value, size_t size), (fd, name, value, size))

CALL(int, getentropy, (void* data, size_t count), (data, count), FailsUninterrupted("getentropy"), -1)
CALL(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), FailsUninterrupted("lseek"), -1)
CALL(FILE*, fopen, (const char* path, const char* mode), (path, mode), FailsUninterrupted("fopen"), nullptr)
CALL(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* file), (data, size, count, file),
     FailsUninterrupted("fwrite"), 0)
CALL(int, fflush, (FILE * file), (file), FailsUninterrupted("fflush"), EOF)

// Nobody waits for the disk here.
[[gnu::visibility("default")]] int fsync(int)
{
    return FaultStrikes(FaultDomain::SystemCalls, "fsync") ? -1 : 0;
}
[[gnu::visibility("default")]] int syncfs(int) noexcept
{
    return FaultStrikes(FaultDomain::SystemCalls, "syncfs") ? -1 : 0;
}

// With a mode or without one.
[[gnu::visibility("default")]] int open(const char* path, int flags, ...)
{
    static const auto real = Real<int(const char*, int, ...)>("open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return FaultStrikes(FaultDomain::SystemCalls, "open") ? -1 : real(path, flags, mode);
}
[[gnu::visibility("default")]] int openat(int fd, const char* path, int flags, ...)
{
    static const auto real = Real<int(int, const char*, int, ...)>("openat");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return FaultStrikes(FaultDomain::SystemCalls, "openat") ? -1 : real(fd, path, flags, mode);
}

// Of what has no function of its own, and of a descriptor's handling, the calls that make descriptors.
[[gnu::visibility("default")]] long syscall(long number, ...)
{
    static const auto real = Real<long(long, ...)>("syscall");
    va_list rest;
    va_start(rest, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(rest, long);
    va_end(rest);
    if (number == SYS_openat2 && FaultStrikes(FaultDomain::SystemCalls, "openat2"))
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
    const bool fails = command == F_DUPFD_CLOEXEC && FaultStrikes(FaultDomain::SystemCalls, "fcntl");
    return fails ? -1 : real(fd, command, argument);
}

// A signal leaves the descriptor open; any other failure has closed it all the same.
[[gnu::visibility("default")]] int close(int fd)
{
    static const auto real = Real<int(int)>("close");
    const bool fails = FaultStrikes(FaultDomain::SystemCalls, "close");
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
