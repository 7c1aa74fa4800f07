#pragma once

#include "Backup/Export.h"

#include "Krt/File/YPath.h"
#include "Krt/Time/YDuration.h"

#include <vector>

namespace Backup::Util {

/// Installs and controls services of the operating system, which are identified by their names.
/// ServiceManager.h creates the implementation for this platform. Failures are raised. A failed command of
/// the platform raises ProcessFailed with its exit status. Any thread.
class BACKUP_API IServiceManager
{
public:
    virtual ~IServiceManager() = default;

    /// Waits until the service is installed.
    virtual void WaitForServiceCreate(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Waits until the service runs.
    virtual void WaitForServiceStart(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Waits until the service does not run.
    virtual void WaitForServiceStop(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Waits until the service is not installed.
    virtual void WaitForServiceDelete(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Returns true if the service is installed, running or not.
    virtual bool Exists(const YString& name) = 0;
    /// Installs a service that runs the program with the arguments and starts with the machine. It replaces
    /// a service of the same name, and is not started. `displayName` and `description` are texts for users;
    /// either may be empty.
    virtual void Install(const YString& name, const YString& displayName, const YString& description,
                         const Krt::File::YPath& program, const std::vector<YString>& arguments,
                         const Krt::Time::YDuration& timeout) = 0;
    /// Stops the service, then removes it.
    virtual void Delete(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Starts the service and waits until it runs.
    virtual void Start(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Stops the service. With `force` it is killed instead of asked to finish.
    virtual void Stop(const YString& name, bool force, const Krt::Time::YDuration& timeout) = 0;
    /// Stops the service, with `force` as in Stop, and starts it.
    virtual void Restart(const YString& name, bool force, const Krt::Time::YDuration& timeout) = 0;
    /// Returns true if the service is running now.
    virtual bool IsRunning(const YString& name) = 0;
};

} // namespace Backup::Util
