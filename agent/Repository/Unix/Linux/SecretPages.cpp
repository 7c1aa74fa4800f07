#include "agent/Repository/Unix/SecretPages.h"

#include <sys/mman.h>

namespace Agent::Repo {

void HidePages(void* pages, std::size_t size)
{
    madvise(pages, size, MADV_DONTDUMP);
}

} // namespace Agent::Repo
