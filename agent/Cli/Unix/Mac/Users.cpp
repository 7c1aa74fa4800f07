#include "agent/Cli/Unix/Users.h"

namespace Agent {

bool AreThereOtherUsers()
{
    return true;
}

} // namespace Agent
