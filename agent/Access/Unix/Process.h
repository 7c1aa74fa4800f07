// The process as a lock of a repository names it.
#pragma once

#include <cstdint>
#include <string>

namespace Agent {

struct ProcessIdentity
{
    std::uint32_t pid = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::string userName; ///< the number if the user has no name
};

ProcessIdentity CurrentProcess();

/// Returns true if this host has a process with the number, of any user. It receives no signal.
bool DoesProcessExist(std::uint32_t pid);

} // namespace Agent
