// Pages of memory for secrets.
#pragma once

#include <cstddef>

namespace Agent::Repo {

/// Keeps the pages, which were mapped for the caller alone, out of core dumps as far as the system can. What
/// it can't do is not an error.
void HidePages(void* pages, std::size_t size);

} // namespace Agent::Repo
