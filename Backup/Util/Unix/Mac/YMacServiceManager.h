#pragma once

#include "Backup/Util/IServiceManager.h"

namespace Backup::Util {

/// Services of launchd. A service is a property list in /Library/LaunchDaemons. launchctl and a shell, run
/// with root's rights, control it. The code is portable apart from these commands, so it is built and
/// tested on all platforms. Stateless, but Start, Stop, Restart and Delete change the user of the whole
/// process to root and leave it so.
class BACKUP_API YMacServiceManager : public IServiceManager
{
public:
    /// Returns at once: a service is only its property list.
    void WaitForServiceCreate(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Always raises NotImplemented.
    void WaitForServiceStart(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Always raises NotImplemented.
    void WaitForServiceStop(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Returns at once: a service is only its property list.
    void WaitForServiceDelete(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Returns true if the property list exists, loaded or not.
    bool Exists(const YString& name) override;
    /// Uses only the name and the program, which are written to the list unescaped. A temporary file
    /// remains after a failure.
    void Install(const YString& name, const YString& displayName, const YString& description,
                 const Krt::File::YPath& program, const std::vector<YString>& arguments,
                 const Krt::Time::YDuration& timeout) override;
    /// Stops the service and removes its list. A service that cannot be stopped is not deleted. A service
    /// without a list is only stopped.
    void Delete(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Raises the operating system's error, without text, if the process cannot become root.
    void Start(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Ignores `force`. Raises the operating system's error, without text, if the process cannot become
    /// root.
    void Stop(const YString& name, bool force, const Krt::Time::YDuration& timeout) override;
    /// Calls Stop, then Start.
    void Restart(const YString& name, bool force, const Krt::Time::YDuration& timeout) override;
    /// Returns true if a process other than this one has the service's name. Never raises.
    bool IsRunning(const YString& name) override;

    /// Returns the path of the service's property list.
    Krt::File::YPath GetConfigFilePath(const YString& name) const;

protected:
    /// Runs a command, sudo included where it is needed, and returns its exit status: by ExecuteProcess.
    virtual int Execute(const Krt::File::YPath& program, const std::vector<YString>& arguments) const;
    /// The directory of the property lists: /Library/LaunchDaemons.
    virtual Krt::File::YPath GetListDirectory() const;

private:
    KRT_HIDDEN void RunElevated(const Krt::File::YPath& program, const std::vector<YString>& arguments,
                                const char* what, const char* function) const;
};

} // namespace Backup::Util
