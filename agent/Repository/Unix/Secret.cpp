#include "agent/Repository/Secret.h"

#include "agent/Repository/Unix/SecretPages.h"

#include "Krt/Exception/Raise.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <sys/mman.h>

namespace Agent::Repo {

Secret::Secret(std::size_t size)
{
    if (size == 0)
        return;
    void* const pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    KRT_RAISE_UNLESS(pages != MAP_FAILED, Krt::ErrorCode::OutOfMemory, "No memory for a secret");
    HidePages(pages, size);
    mlock(pages, size); // an ordinary user may lock a few pages, or none
    m_data = static_cast<unsigned char*>(pages);
    m_size = size;
}

Secret::Secret(ByteView content) : Secret(content.size())
{
    std::copy(content.begin(), content.end(), m_data);
}

Secret::~Secret()
{
    if (m_data == nullptr)
        return;
    Wipe(Data());
    munmap(m_data, m_size);
}

void Wipe(std::span<unsigned char> memory)
{
    OPENSSL_cleanse(memory.data(), memory.size());
}

} // namespace Agent::Repo
