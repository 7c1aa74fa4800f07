// Memory for shared values. Documents come and go a record at a time, and each record has dozens of values,
// all of one size: the blocks that a thread gives back are kept for its next document, up to a limit. A block
// may be given back on another thread than took it.
#pragma once

#include <cstddef>
#include <memory>

namespace Krt::JSON {

/// In front the counts of the shared pointer, behind them the value.
constexpr std::size_t ValueCountsSize = 40;
constexpr std::size_t ValueBlockSize = 136;

void* TakeValueBlock();
void ReturnValueBlock(void* block) noexcept;

struct ReturnsValueBlock
{
    void operator()(void* block) const noexcept { ReturnValueBlock(block); }
};
using ValueBlock = std::unique_ptr<void, ReturnsValueBlock>;

/// Puts the counts to the front of a block that was taken for them; it is theirs from then on.
template <class T>
class CountsAllocator
{
public:
    using value_type = T;

    explicit CountsAllocator(ValueBlock block) noexcept : m_block(block.release()) {}
    template <class U>
    CountsAllocator(const CountsAllocator<U>& other) noexcept : m_block(other.Block())
    {}

    T* allocate(std::size_t) noexcept
    {
        static_assert(sizeof(T) <= ValueCountsSize);
        return static_cast<T*>(m_block);
    }
    void deallocate(T* counts, std::size_t) noexcept { ReturnValueBlock(counts); }
    void* Block() const { return m_block; }

    template <class U>
    bool operator==(const CountsAllocator<U>& other) const noexcept
    {
        return m_block == other.Block();
    }

private:
    void* m_block;
};

} // namespace Krt::JSON
