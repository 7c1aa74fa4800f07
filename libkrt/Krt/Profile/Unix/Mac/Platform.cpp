#include "Krt/Profile/Unix/Platform.h"

namespace Krt::Profile {

const char* SystemPath()
{
    return "/Library/Preferences/kbagent.conf";
}

} // namespace Krt::Profile
