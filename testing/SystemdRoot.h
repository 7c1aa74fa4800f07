// A root of the file system under which systemd runs and no unit stands, for as long as the object lives.
#pragma once

#include "testing/TemporaryDirectory.h"

#include "Backup/Util/Unix/Linux/YSystemdServiceManager.h"

namespace Testing {

class SystemdRoot
{
public:
    SystemdRoot()
    {
        directory.MakeDirectory("run/systemd/system");
        directory.MakeDirectory("etc/systemd/system");
        Backup::Util::YSystemdServiceManager::SetRootForTesting(directory.Path().c_str());
    }
    ~SystemdRoot() { Backup::Util::YSystemdServiceManager::SetRootForTesting(nullptr); }
    SystemdRoot(const SystemdRoot&) = delete;
    SystemdRoot& operator=(const SystemdRoot&) = delete;

    const TemporaryDirectory directory;
    const std::string units = directory / "etc/systemd/system";
    const std::string unit = units + "/kbagent.service"; ///< of the service "kbagent"
};

} // namespace Testing
