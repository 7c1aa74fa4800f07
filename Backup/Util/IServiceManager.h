// What an agent needs to install itself as a service of the operating system and to control it. A service is
// known by its name. ServiceManager.h gives the one of this platform. Failures are raised; a command of the
// platform that fails is told with ProcessFailed and its exit status. Any thread.
#pragma once

#include "Backup/Export.h"

#include "Krt/File/YPath.h"
#include "Krt/Time/YDuration.h"

#include <vector>

namespace Backup::Util {

class BACKUP_API IServiceManager
{
public:
    virtual ~IServiceManager() = default;

    /// Each waits until the service is in that state.
    virtual void WaitForServiceCreate(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    virtual void WaitForServiceStart(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    virtual void WaitForServiceStop(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    virtual void WaitForServiceDelete(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Whether the service is installed, running or not.
    virtual bool Exists(const YString& name) = 0;
    /// Makes a service that runs the program with the arguments and starts with the machine. It replaces one
    /// of the same name, and isn't started. `displayName` and `description` are for people; either may be
    /// empty.
    virtual void Install(const YString& name, const YString& displayName, const YString& description,
                         const Krt::File::YPath& program, const std::vector<YString>& arguments,
                         const Krt::Time::YDuration& timeout) = 0;
    /// Stops the service first.
    virtual void Delete(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Starts the service and waits until it runs.
    virtual void Start(const YString& name, const Krt::Time::YDuration& timeout) = 0;
    /// Stops the service, or stops and starts it; `force` doesn't let it finish what it is at.
    virtual void Stop(const YString& name, bool force, const Krt::Time::YDuration& timeout) = 0;
    virtual void Restart(const YString& name, bool force, const Krt::Time::YDuration& timeout) = 0;
    /// Whether the service runs at this moment.
    virtual bool IsRunning(const YString& name) = 0;
};

} // namespace Backup::Util
