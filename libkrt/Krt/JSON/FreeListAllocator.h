#pragma once

/// @file
/// Memory for shared values. Documents come and go one record at a time, and each record has dozens of
/// values, all of one size: the blocks that a thread frees are kept for its next document, up to a limit. A
/// block may be freed by another thread than the one that allocated it.

#include <cstddef>
#include <new>

// AddressSanitizer sees each value's own life only if no block is kept.
#if defined(__SANITIZE_ADDRESS__)
#define KRT_KEEPS_NO_BLOCKS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KRT_KEEPS_NO_BLOCKS
#endif
#endif

namespace Krt::JSON {

/// The blocks of one size that the calling thread keeps.
template <std::size_t Size>
class FreeList
{
public:
    /// Returns a block that the thread kept, or a new one.
    static void* Take()
    {
        Kept& kept = t_kept;
        return kept.first ? TakeFirst(kept) : ::operator new(Size);
    }
    /// Keeps a block of Take, which may be another thread's, or frees it if the limit is reached.
    static void Return(void* memory) noexcept
    {
        Kept& kept = t_kept;
        if (!kept.isPrepared) [[unlikely]] {
            kept.isPrepared = true;
            static thread_local const Cleaner cleaner;
        }
        if (kept.count >= kept.limit) {
            ::operator delete(memory);
            return;
        }
        kept.first = new (memory) Block{kept.first};
        ++kept.count;
    }

private:
#ifdef KRT_KEEPS_NO_BLOCKS
    static constexpr unsigned int Limit = 0;
#else
    static constexpr unsigned int Limit = 256;
#endif

    struct Block
    {
        Block* next;
    };
    static_assert(sizeof(Block) <= Size);

    // Trivial, so that a value that is destroyed while its thread ends still finds it.
    struct Kept
    {
        Block* first;
        unsigned int count;
        unsigned int limit;
        bool isPrepared;
    };

    // Frees the thread's blocks when it ends, after which it keeps no others.
    struct Cleaner
    {
        Cleaner() { t_kept.limit = Limit; }
        ~Cleaner()
        {
            t_kept.limit = 0;
            while (t_kept.first)
                ::operator delete(TakeFirst(t_kept));
        }
    };

    static Block* TakeFirst(Kept& kept)
    {
        Block* const block = kept.first;
        kept.first = block->next;
        --kept.count;
        return block;
    }

    [[gnu::tls_model("initial-exec")]] static constinit thread_local Kept t_kept;
};

template <std::size_t Size>
constinit thread_local typename FreeList<Size>::Kept FreeList<Size>::t_kept{};

/// Allocates single objects from the list of their size.
template <class T>
class FreeListAllocator
{
public:
    using value_type = T;

    FreeListAllocator() = default;
    template <class U>
    FreeListAllocator(const FreeListAllocator<U>&) noexcept
    {}

    T* allocate(std::size_t) { return static_cast<T*>(FreeList<sizeof(T)>::Take()); }
    void deallocate(T* object, std::size_t) noexcept { FreeList<sizeof(T)>::Return(object); }

    template <class U>
    bool operator==(const FreeListAllocator<U>&) const noexcept
    {
        return true;
    }
};

} // namespace Krt::JSON
