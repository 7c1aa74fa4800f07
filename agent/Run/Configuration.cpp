#include "agent/Run/Configuration.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Profile/YProfile.h"

namespace Agent {

void RequireSwitches(std::initializer_list<const char*> keys)
{
    constexpr const char* section = "configuration";
    const boost::shared_ptr<Krt::Profile::YProfile> profile = Krt::Profile::OpenSystem();
    for (const char* key : keys) {
        try {
            profile->Get<bool>(section, key, false);
        } catch (const Krt::Exception::YError&) {
            KRT_RAISE(Krt::ErrorCode::InvalidArgument,
                      "The configuration " << Krt::Profile::GetSystemPath() << " has neither yes nor no for "
                                           << key << ": '" << profile->GetKeyValue(section, key, "") << "'");
        }
    }
}

} // namespace Agent
