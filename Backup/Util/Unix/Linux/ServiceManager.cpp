#include "Backup/Util/ServiceManager.h"

#include "Backup/Util/Unix/Linux/YSystemdServiceManager.h"

namespace Backup::Util {

std::unique_ptr<IServiceManager> CreateServiceManager()
{
    return std::make_unique<YSystemdServiceManager>();
}

bool DoServicesKeepArguments()
{
    return true;
}

} // namespace Backup::Util
