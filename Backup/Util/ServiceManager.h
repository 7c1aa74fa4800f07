// The services of this platform: launchd's on macOS, systemd's on Linux.
#pragma once

#include "Backup/Util/IServiceManager.h"

#include <memory>

namespace Backup::Util {

/// A new object, the caller's.
BACKUP_API std::unique_ptr<IServiceManager> CreateServiceManager();
/// Whether its services keep the arguments with which they were installed.
BACKUP_API bool DoServicesKeepArguments();

} // namespace Backup::Util
