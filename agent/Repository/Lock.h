// Lock: a process that uses the repository. The file exists as long as it does.
#pragma once

#include "agent/Repository/Timestamp.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Agent::Repo {

struct Lock
{
    Timestamp time;           ///< of the last refresh
    bool isExclusive = false; ///< no other process may use the repository
    std::string hostname;
    std::string username;
    std::uint32_t pid = 0; ///< of the process on that host
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;

    /// Reads the JSON text of a lock file. Raises Damaged with the offset for other text.
    static Lock Parse(std::string_view json);
    std::string ToJson() const;
};

} // namespace Agent::Repo
