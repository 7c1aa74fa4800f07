#include "Krt/JSON/ValueBlock.h"

#include <new>

#include <sanitizer/asan_interface.h> // its macros do nothing in other builds

namespace Krt::JSON {

namespace {

constexpr unsigned int KeptBlocks = 256;

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
    ASAN_UNPOISON_MEMORY_REGION(block, ValueBlockSize);
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
    ASAN_POISON_MEMORY_REGION(memory, ValueBlockSize);
}

} // namespace Krt::JSON
