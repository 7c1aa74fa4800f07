#pragma once

/// @file
/// Memory for shared values. Documents come and go one record at a time, and each record has dozens of
/// values, all of one size: the blocks that a thread frees are kept for its next document, up to a limit. A
/// block may be freed by another thread than the one that allocated it.
///
/// A block is either an object with its counts, or a link in the list of one thread. Only that thread uses
/// the list, so nothing is locked. The list is empty until the thread destroys its first value, and again
/// from the thread's end on: values that are destroyed later free their blocks.

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <new>
#include <utility>

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

/// Makes shared objects, each in a block of its FreeList with its counts after it. boost::allocate_shared
/// takes a larger block, and counts the owners twice more while it makes one.
template <class T>
class SharedBlock
{
public:
    /// Returns a new object, constructed from the arguments. Raises what its constructor does.
    template <class... Arguments>
    static boost::shared_ptr<T> Make(Arguments&&... arguments)
    {
        void* const block = Blocks::Take();
        T* object = nullptr;
        try {
            object = new (block) T(std::forward<Arguments>(arguments)...);
        } catch (...) {
            Blocks::Return(block);
            throw;
        }
        t_counts = object + 1;
        // The pointer's constructor allocates its counts once, by CountsAllocator, and raises nothing.
        return boost::shared_ptr<T>(object, Destroyer(), CountsAllocator<T>());
    }

private:
    static constexpr std::size_t CountsSize = 4 * sizeof(void*);
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "the alignment of a block");
    using Blocks = FreeList<sizeof(T) + CountsSize>;

    // The counts' own memory is the whole block, which outlives the object as long as there are weak
    // pointers.
    struct Destroyer
    {
        void operator()(T* object) const noexcept { object->~T(); }
    };

    // The counts store a copy of their allocator. It is empty, so that the block is small; the memory is
    // passed in t_counts instead.
    template <class Counts>
    class CountsAllocator
    {
    public:
        using value_type = Counts;

        CountsAllocator() = default;
        template <class Other>
        CountsAllocator(const CountsAllocator<Other>&) noexcept
        {}

        Counts* allocate(std::size_t) noexcept
        {
            static_assert(sizeof(Counts) == CountsSize && alignof(Counts) <= alignof(T));
            return static_cast<Counts*>(t_counts);
        }
        void deallocate(Counts* counts, std::size_t) noexcept
        {
            Blocks::Return(reinterpret_cast<char*>(counts) - sizeof(T));
        }
        template <class Other>
        bool operator==(const CountsAllocator<Other>&) const noexcept
        {
            return true;
        }
    };

    [[gnu::tls_model("initial-exec")]] static constinit thread_local void* t_counts; // of the next pointer
};

template <class T>
constinit thread_local void* SharedBlock<T>::t_counts = nullptr;

} // namespace Krt::JSON

#undef KRT_KEEPS_NO_BLOCKS
