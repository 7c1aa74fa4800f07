// The system's configuration is a missing file for as long as the object lives. What the process makes at the
// first look into any is made by then.
#pragma once

#include "testing/TemporaryDirectory.h"

#include "Krt/Profile/YProfile.h"

#include <cstdlib>

namespace Testing {

class NoConfiguration
{
public:
    explicit NoConfiguration(const TemporaryDirectory& directory)
    {
        setenv("KBAGENT_CONFIG", directory.Write("empty.conf", "").c_str(), 1);
        Krt::Profile::OpenSystem();
        setenv("KBAGENT_CONFIG", (directory / "missing.conf").c_str(), 1);
        Krt::Profile::OpenSystem();
    }
    ~NoConfiguration() { unsetenv("KBAGENT_CONFIG"); }
    NoConfiguration(const NoConfiguration&) = delete;
    NoConfiguration& operator=(const NoConfiguration&) = delete;
};

} // namespace Testing
