#include "agent/Repository/Unix/SecretPages.h"

#include <mach/vm_inherit.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace Agent::Repo {

// The system cannot leave pages out of a core dump. It writes none unless the user asks for them.
void HidePages(void* pages, std::size_t size)
{
    minherit(pages, size, VM_INHERIT_NONE);
}

void HideProcess()
{
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

} // namespace Agent::Repo
