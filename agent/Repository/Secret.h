// Secret: memory for keys and passwords. It is in pages of its own, which are left out of core dumps and, if
// the system allows, never written to swap. It is overwritten before it is given back.
#pragma once

#include "agent/Repository/Bytes.h"

#include <cstddef>
#include <utility>

namespace Agent::Repo {

class Secret
{
public:
    /// Empty.
    Secret() = default;
    /// `size` bytes of zero. Raises OutOfMemory.
    explicit Secret(std::size_t size);
    /// A copy of the bytes. The caller wipes the original. Raises OutOfMemory.
    explicit Secret(ByteView content);
    Secret(Secret&& other) noexcept
        : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0))
    {}
    Secret& operator=(Secret&& other) noexcept
    {
        std::swap(m_data, other.m_data);
        std::swap(m_size, other.m_size);
        return *this;
    }
    ~Secret();

    std::size_t Size() const { return m_size; }
    ByteView View() const { return {m_data, m_size}; }
    std::span<unsigned char> Data() { return {m_data, m_size}; }

private:
    unsigned char* m_data = nullptr;
    std::size_t m_size = 0;
};

/// Overwrites memory that held a secret, in a way that no compiler drops.
void Wipe(std::span<unsigned char> memory);

} // namespace Agent::Repo
