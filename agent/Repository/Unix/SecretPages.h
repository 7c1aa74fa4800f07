// Memory for secrets, and a process that has them.
#pragma once

#include <cstddef>

namespace Agent::Repo {

/// Keeps the pages, which were mapped for the caller alone, out of core dumps and of processes that are
/// forked, as far as the system can. What it can't do is not an error.
void HidePages(void* pages, std::size_t size);

/// From now on the process leaves no core dump, and, if the system allows, debuggers of other processes than
/// root's can't read its memory. What the system can't do is not an error.
void HideProcess();

} // namespace Agent::Repo
