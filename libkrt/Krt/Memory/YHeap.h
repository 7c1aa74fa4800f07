#pragma once

#include "Krt/Memory/IHeap.h"

#include <cstring>
#include <exception>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace Krt::Memory {

namespace Detail {
// The raising sites are in YHeap.cpp, so that errors name the same source path in every program.
[[noreturn]] KRT_API void RaiseResize(unsigned long size, const std::exception& cause);
[[noreturn]] KRT_API void RaiseRange(const char* function);
[[noreturn]] KRT_API void RaiseEmpty(const IHeap& heap, const char* function);
template <class T>
constexpr const char* ConversionName()
{
    if constexpr (std::is_same_v<T, unsigned char>)
        return "operator unsigned char *";
    else if constexpr (std::is_same_v<T, char>)
        return "operator char *";
    else
        return "operator wchar_t *";
}
} // namespace Detail

/// An owned, bounds-checked byte buffer. All sizes and offsets are in bytes, whatever T is, and the
/// capacity equals the size. No lock: one thread at a time.
template <class T, class A = std::allocator<unsigned char>>
class YHeap : public IHeap
{
public:
    YHeap() = default;

    /// A heap of `size` bytes, copied from `source`.
    YHeap(const void* source, unsigned long size)
    {
        Resize(size);
        Copy(0, source, size);
    }

    /// Copies the bytes. Raises OutOfMemory.
    YHeap(const YHeap& other) : YHeap(other.m_bytes.data(), other.Size()) {}
    /// Copies the bytes. Raises OutOfMemory, with the old content kept.
    YHeap& operator=(const YHeap& other) { return *this = YHeap(other); }
    /// Moves the bytes; `other` is empty afterwards.
    YHeap(YHeap&& other) noexcept : m_bytes(std::move(other.m_bytes)) { other.m_bytes.clear(); }

    /// Moves the bytes; `other` is empty afterwards.
    YHeap& operator=(YHeap&& other) noexcept
    {
        if (this != &other) {
            ReportHeapResize(Size(), 0);
            m_bytes = std::move(other.m_bytes);
            other.m_bytes = std::vector<unsigned char, A>();
        }
        return *this;
    }

    ~YHeap() override { Resize(0); }

    unsigned long Size() const override { return m_bytes.size(); }

    /// Grows with zero bytes or removes bytes at the end. Remaining bytes keep their values and offsets.
    /// Raises OutOfMemory, with the old content kept.
    void Resize(unsigned long size);

    /// Copies `length` bytes from `source` to `offset`. Raises InvalidArgument if they extend past the end.
    void Copy(unsigned long offset, const void* source, unsigned long length);

    /// Returns the bytes at `offset` as a U. `length` bytes from there must be inside the heap; if it is 0,
    /// `offset` may equal the size. Raises InvalidArgument otherwise, and for an empty heap.
    template <class U>
    U* RawOffset(unsigned long offset, unsigned long length)
    {
        CheckRange(offset, length, "RawOffset");
        return reinterpret_cast<U*>(Cast<unsigned char>() + offset);
    }
    /// Returns the bytes at `offset` as a const U, with the checks of the other overload.
    template <class U>
    const U* RawOffset(unsigned long offset, unsigned long length) const
    {
        CheckRange(offset, length, "RawOffset");
        return reinterpret_cast<const U*>(Cast<unsigned char>() + offset);
    }

    /// Returns the start of the bytes as a U, possibly unaligned. Raises InvalidArgument if the heap is
    /// smaller than a U.
    template <class U>
    U* Cast()
    {
        if (Size() < sizeof(U))
            Detail::RaiseRange("Cast");
        return reinterpret_cast<U*>(m_bytes.data());
    }
    /// Returns the start of the bytes as a const U, possibly unaligned. Raises InvalidArgument if the heap
    /// is smaller than a U.
    template <class U>
    const U* Cast() const
    {
        if (Size() < sizeof(U))
            Detail::RaiseRange("Cast");
        return reinterpret_cast<const U*>(m_bytes.data());
    }

    /// The start of the bytes. An empty heap fails an assertion (InvalidUse).
    operator T*()
    {
        if (m_bytes.empty())
            Detail::RaiseEmpty(*this, Detail::ConversionName<T>());
        return reinterpret_cast<T*>(m_bytes.data());
    }

private:
    void CheckRange(unsigned long offset, unsigned long length, const char* function) const
    {
        if (offset > Size() || length > Size() - offset)
            Detail::RaiseRange(function);
    }

    std::vector<unsigned char, A> m_bytes;
};

template <class T, class A>
void YHeap<T, A>::Resize(unsigned long size)
{
    ReportHeapResize(Size(), size);
    if (size == 0) {
        m_bytes = std::vector<unsigned char, A>();
        return;
    }
    try {
        m_bytes.reserve(size);
        m_bytes.resize(size);
    } catch (const std::exception& cause) {
        Detail::RaiseResize(size, cause);
    }
    try {
        m_bytes.shrink_to_fit();
    } catch (const std::exception&) {
        // Capacity that cannot be released is kept.
    }
}

template <class T, class A>
void YHeap<T, A>::Copy(unsigned long offset, const void* source, unsigned long length)
{
    CheckRange(offset, length, "Copy");
    if (length != 0)
        std::memcpy(RawOffset<unsigned char>(offset, 0), source, length);
}

extern template class KRT_API YHeap<unsigned char>;
extern template class KRT_API YHeap<char>;
extern template class KRT_API YHeap<wchar_t>;

} // namespace Krt::Memory
