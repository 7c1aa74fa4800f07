#include "agent/Repository/Unix/SecretPages.h"

namespace Agent::Repo {

// The system cannot leave pages out of a core dump. It writes none unless the user asks for them.
void HidePages(void*, std::size_t) {}

} // namespace Agent::Repo
