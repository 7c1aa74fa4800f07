#include "agent/Repository/Unix/SecretPages.h"

#include <sys/resource.h>

namespace Agent::Repo {

// The system cannot leave pages out of a core dump. It writes none unless the user asks for them.
void HidePages(void*, std::size_t) {}

void HideProcess()
{
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

} // namespace Agent::Repo
