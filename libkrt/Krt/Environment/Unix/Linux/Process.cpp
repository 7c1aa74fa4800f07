#include "Krt/Environment/Process.h"

#include <sys/auxv.h>

namespace Krt::Environment {

bool IsPrivilegeRaised()
{
    return getauxval(AT_SECURE) != 0;
}

} // namespace Krt::Environment
