#include "Krt/Environment/Process.h"

#include <unistd.h>

namespace Krt::Environment {

bool IsPrivilegeRaised()
{
    return issetugid() != 0;
}

} // namespace Krt::Environment
