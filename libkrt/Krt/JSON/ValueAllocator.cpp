#include "Krt/JSON/ValueAllocator.h"

#include <new>
#include <utility>

namespace Krt::JSON {

namespace {

constexpr unsigned int KeptBlocks = 256;

struct Block
{
    Block* next;
};

// Trivial, so that a value which dies while its thread ends still finds it.
struct FreeBlocks
{
    Block* first = nullptr;
    unsigned int count = 0;
    unsigned int limit = 0;
    bool isPrepared = false;
};
constinit thread_local FreeBlocks t_free;

// Gives the thread's blocks back when it ends, after which none is kept any more.
class Cleaner
{
public:
    Cleaner() { t_free.limit = KeptBlocks; }
    ~Cleaner()
    {
        t_free.limit = 0;
        while (Block* const block = t_free.first) {
            t_free.first = block->next;
            ::operator delete(block);
        }
        t_free.count = 0;
    }
};

} // namespace

void* TakeValueBlock()
{
    FreeBlocks& free = t_free;
    Block* const block = free.first;
    if (!block)
        return ::operator new(ValueBlockSize);
    free.first = block->next;
    --free.count;
    return block;
}

void ReturnValueBlock(void* memory) noexcept
{
    FreeBlocks& free = t_free;
    if (!free.isPrepared) [[unlikely]] {
        free.isPrepared = true;
        static thread_local Cleaner cleaner;
    }
    if (free.count >= free.limit) {
        ::operator delete(memory);
        return;
    }
    free.first = new (memory) Block{free.first};
    ++free.count;
}

} // namespace Krt::JSON
