#include "Backup/Util/ServiceManager.h"

#include "Backup/Util/Unix/Mac/YMacServiceManager.h"

namespace Backup::Util {

std::unique_ptr<IServiceManager> CreateServiceManager()
{
    return std::make_unique<YMacServiceManager>();
}

bool DoServicesKeepArguments()
{
    return false;
}

} // namespace Backup::Util
