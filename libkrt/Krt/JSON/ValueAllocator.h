// Memory for shared values. Documents come and go a record at a time, and each record has dozens of values,
// all of one size: the blocks that a thread gives back are kept for its next document, up to a limit.
#pragma once

#include <cstddef>

namespace Krt::JSON {

/// The size of every block: a value and the counts of its shared pointer.
constexpr std::size_t ValueBlockSize = 144;

void* TakeValueBlock();
void ReturnValueBlock(void* block) noexcept;

/// For boost::allocate_shared<YValue>. Blocks may be given back on another thread than took them.
template <class T>
class ValueAllocator
{
public:
    using value_type = T;

    ValueAllocator() = default;
    template <class U>
    ValueAllocator(const ValueAllocator<U>&) noexcept
    {}

    T* allocate(std::size_t)
    {
        static_assert(sizeof(T) <= ValueBlockSize);
        return static_cast<T*>(TakeValueBlock());
    }
    void deallocate(T* block, std::size_t) noexcept { ReturnValueBlock(block); }

    template <class U>
    bool operator==(const ValueAllocator<U>&) const noexcept
    {
        return true;
    }
};

} // namespace Krt::JSON
