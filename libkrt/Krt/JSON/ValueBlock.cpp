#include "Krt/JSON/ValueBlock.h"

#include <new>

namespace Krt::JSON {

namespace {

// AddressSanitizer sees each value's own life only when nothing is kept.
#if defined(__SANITIZE_ADDRESS__)
#define KRT_KEEPS_NO_BLOCKS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KRT_KEEPS_NO_BLOCKS
#endif
#endif
#ifdef KRT_KEEPS_NO_BLOCKS
constexpr unsigned int KeptBlocks = 0;
#else
constexpr unsigned int KeptBlocks = 256;
#endif

struct FreeBlock
{
    FreeBlock* next;
};

// Trivial, so that a value which dies while its thread ends still finds it.
struct FreeBlocks
{
    FreeBlock* first = nullptr;
    unsigned int count = 0;
    unsigned int limit = 0;
    bool isPrepared = false;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local FreeBlocks t_free;

FreeBlock* TakeFirst(FreeBlocks& free)
{
    FreeBlock* const block = free.first;
    free.first = block->next;
    --free.count;
    return block;
}

// Gives the thread's blocks back when it ends, after which none is kept any more.
class Cleaner
{
public:
    Cleaner() { t_free.limit = KeptBlocks; }
    ~Cleaner()
    {
        t_free.limit = 0;
        while (t_free.first)
            ::operator delete(TakeFirst(t_free));
    }
};

} // namespace

void* TakeValueBlock()
{
    FreeBlocks& free = t_free;
    return free.first ? TakeFirst(free) : ::operator new(ValueBlockSize);
}

void ReturnValueBlock(void* memory) noexcept
{
    FreeBlocks& free = t_free;
    if (!free.isPrepared) [[unlikely]] {
        free.isPrepared = true;
        static thread_local const Cleaner cleaner;
    }
    if (free.count >= free.limit) {
        ::operator delete(memory);
        return;
    }
    free.first = new (memory) FreeBlock{free.first};
    ++free.count;
}

} // namespace Krt::JSON
