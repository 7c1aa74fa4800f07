#include "agent/Repository/Pages.h"

#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace Agent::Repo {

namespace {

#ifdef __APPLE__
constexpr int Discard = MADV_FREE; // MADV_DONTNEED keeps the pages there
#else
constexpr int Discard = MADV_DONTNEED;
#endif

} // namespace

Pages::Pages(std::size_t size) : m_size(size)
{
    if (size == 0)
        return;
    void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    m_data = static_cast<unsigned char*>(memory);
}

Pages::~Pages()
{
    if (m_data != nullptr)
        munmap(m_data, m_size);
}

void Pages::Release(std::size_t begin)
{
    static const auto s_pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t first = (begin + s_pageSize - 1) / s_pageSize * s_pageSize;
    if (first < m_size)
        madvise(m_data + first, m_size - first, Discard);
}

} // namespace Agent::Repo
