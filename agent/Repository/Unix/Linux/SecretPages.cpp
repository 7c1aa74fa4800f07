#include "agent/Repository/Unix/SecretPages.h"

#include <sys/mman.h>
#include <sys/prctl.h>

namespace Agent::Repo {

void HidePages(void* pages, std::size_t size)
{
    madvise(pages, size, MADV_DONTDUMP);
    madvise(pages, size, MADV_WIPEONFORK);
}

void HideProcess()
{
    prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

} // namespace Agent::Repo
