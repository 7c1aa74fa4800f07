#include "Krt/Profile/Unix/Platform.h"

namespace Krt::Profile {

const char* SystemPath()
{
    return "/etc/kbagent/kbagent.conf";
}

} // namespace Krt::Profile
