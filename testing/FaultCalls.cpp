#include "testing/FaultCalls.h"

#include "testing/Calls.h"

#include <openssl/crypto.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <sys/mman.h>

namespace Testing {

constinit FaultRun g_faultRun;

namespace {

struct Shared
{
    char struck[64];
    bool isOpenSslStruck;
    unsigned long calls[FaultDomains];
};

// Shared with child processes.
Shared& s_shared = *static_cast<Shared*>(
    mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
[[maybe_unused]] const auto s_calls = g_faultRun.calls = s_shared.calls;

bool IsSystemCall(FaultDomain domain)
{
    return domain == FaultDomain::SystemCalls || domain == FaultDomain::Transfers;
}

// The filter of all calls: a fault fails one, or halves what it transfers. No scenario waits for the disk.
std::optional<long> Strike(const Call& call)
{
    if (call.count != nullptr && *call.count > 1 && FaultStrikes(FaultDomain::Transfers, call.function))
        *call.count /= 2;
    const bool isSpared = call.isRestarted && g_faultRun.kind != nullptr && g_faultRun.kind->error == EINTR;
    if (!isSpared && FaultStrikes(FaultDomain::SystemCalls, call.function))
        return call.failed;
    const std::string_view function = call.function;
    return function == "fsync" || function == "syncfs" ? std::optional(0L) : std::nullopt;
}
[[maybe_unused]] const auto s_filter = g_callFilter = Strike;

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

// Must run before OpenSSL allocates memory: it rejects other functions afterwards.
[[maybe_unused]] const int s_isCryptoFollowed =
    CRYPTO_set_mem_functions(AllocateCrypto, ReallocateCrypto, FreeCrypto);

} // namespace

bool FaultStrikes(FaultDomain domain, const char* call)
{
    FaultRun& run = g_faultRun;
    if (!run.isArmed)
        return false;
    const unsigned long number =
        __atomic_add_fetch(&run.calls[static_cast<int>(domain)], 1, __ATOMIC_RELAXED);
    if (run.kind == nullptr)
        return false;
    const bool isStruck = *StruckCall() != '\0';
    if (domain != run.kind->domain)
        return isStruck && run.kind->starves && !IsSystemCall(domain);
    if (number < run.target || number - run.target >= run.kind->inARow)
        return false;
    if (number == run.target)
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
using Testing::Free;

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
// Objects with an extended alignment are not counted as leaks: a thread keeps its slots of locks until it has
// many.
void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}
