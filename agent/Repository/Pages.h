// Pages: large memory that comes from the system and returns to it, past the heap, which would keep it. A
// page takes memory once it is written. One thread at a time.
#pragma once

#include <cstddef>
#include <utility>

namespace Agent::Repo {

class Pages
{
public:
    Pages() = default;
    /// Memory of at least this many bytes, all 0. Raises std::bad_alloc.
    explicit Pages(std::size_t size);
    ~Pages();
    Pages(Pages&& other) noexcept { *this = std::move(other); }
    Pages& operator=(Pages&& other) noexcept
    {
        std::swap(m_data, other.m_data);
        std::swap(m_size, other.m_size);
        return *this;
    }

    unsigned char* Data() const { return m_data; }
    std::size_t Size() const { return m_size; }
    /// Returns the memory of the bytes from `begin` on to the system, but for the rest of the page that
    /// `begin` is in. They can be used again, and are undefined.
    void Release(std::size_t begin);

private:
    unsigned char* m_data = nullptr;
    std::size_t m_size = 0;
};

} // namespace Agent::Repo
