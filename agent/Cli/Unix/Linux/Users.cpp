#include "agent/Cli/Unix/Users.h"

#include <fstream>

namespace Agent {

bool AreThereOtherUsers()
{
    // A line for each range of ids: the first inside, the first outside, how many.
    std::ifstream map("/proc/self/uid_map");
    unsigned long users = 0;
    for (unsigned long inside, outside, count; map >> inside >> outside >> count;)
        users += count;
    return users != 1;
}

} // namespace Agent
