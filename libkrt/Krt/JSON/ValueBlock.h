#pragma once

/// @file
/// Memory for shared values. Documents are created and destroyed record by record, and each record has
/// dozens of values of one size. So the blocks that a thread returns are kept for its next document, up to
/// a limit. A block may be returned on another thread than the one that allocated it.

#include <cstddef>
#include <memory>

namespace Krt::JSON {

/// The bytes at the beginning of a block for the counts of the shared pointer; the value follows them.
constexpr std::size_t ValueCountsSize = 40;
/// The size of a block in bytes.
constexpr std::size_t ValueBlockSize = 136;

/// Returns a block of ValueBlockSize bytes. Raises std::bad_alloc.
void* TakeValueBlock();
/// Returns a block of TakeValueBlock.
void ReturnValueBlock(void* block) noexcept;

/// A deleter that calls ReturnValueBlock.
struct ReturnsValueBlock
{
    void operator()(void* block) const noexcept { ReturnValueBlock(block); }
};
/// An owned block.
using ValueBlock = std::unique_ptr<void, ReturnsValueBlock>;

/// Allocates the counts at the beginning of an existing block, which they own from then on.
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
