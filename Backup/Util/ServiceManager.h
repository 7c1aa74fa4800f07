#pragma once

/// @file
/// Access to the services of this platform: launchd's on macOS, systemd's on Linux.

#include "Backup/Util/IServiceManager.h"

#include <memory>

namespace Backup::Util {

/// Returns a new service manager, owned by the caller.
BACKUP_API std::unique_ptr<IServiceManager> CreateServiceManager();
/// Returns true if services of this platform keep the arguments with which they were installed.
BACKUP_API bool DoServicesKeepArguments();

} // namespace Backup::Util
