#pragma once

#include "Backup/Util/IServiceManager.h"

#include "Krt/Environment/Process.h"

namespace Backup::Util {

/// Services of systemd. A service is a unit file in /etc/systemd/system. systemctl, run without a shell,
/// controls it, with root's rights where they are required. Each operation except Exists,
/// WaitForServiceCreate and WaitForServiceDelete raises NotSupported if systemd does not run the machine.
/// Each operation raises InvalidArgument for a name that is not valid for a unit. Both are checked before
/// any change. Stateless.
class BACKUP_API YSystemdServiceManager : public IServiceManager
{
public:
    /// The services of this machine.
    YSystemdServiceManager();
    /// Those below the directory `root`, which contains /etc and /run, with systemctl run by `runner`. An
    /// empty root is the machine's own.
    YSystemdServiceManager(Krt::Environment::ProcessRunner runner, YString root);

    /// Polls at least once, and raises LockTimeout after `timeout`. A negative timeout counts as 0.
    void WaitForServiceCreate(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Polls as WaitForServiceCreate does.
    void WaitForServiceStart(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Polls as WaitForServiceCreate does.
    void WaitForServiceStop(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Polls as WaitForServiceCreate does.
    void WaitForServiceDelete(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Returns true if the unit file exists.
    bool Exists(const YString& name) override;
    /// Writes the unit file, which requires the right to do so, and enables it. At any moment there is
    /// either the former file or the new one. Raises InvalidArgument for values that a unit cannot contain.
    void Install(const YString& name, const YString& displayName, const YString& description,
                 const Krt::File::YPath& program, const std::vector<YString>& arguments,
                 const Krt::Time::YDuration& timeout) override;
    /// Stops the service unforced, disables it and removes the unit file. Without the right to remove the
    /// file, raises the operating system's error before any change. A service that cannot be stopped is not
    /// deleted. A service whose unit file is in another directory is only stopped.
    void Delete(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Returns when systemctl reports that the program runs, or raises if it cannot be run. `timeout` is
    /// how long to wait until IsRunning is true.
    void Start(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// systemd kills a service that does not end within its own timeout; with `force` it is killed at once.
    void Stop(const YString& name, bool force, const Krt::Time::YDuration& timeout) override;
    /// Restarts in one step, so that a service can restart itself.
    void Restart(const YString& name, bool force, const Krt::Time::YDuration& timeout) override;
    /// Returns true if systemctl reports the unit as active, which excludes a unit that is starting or
    /// stopping. Raises if systemctl fails.
    bool IsRunning(const YString& name) override;

private:
    KRT_HIDDEN Krt::File::YPath GetUnitDirectory() const;
    KRT_HIDDEN void RequireSystemd(const char* function) const;
    KRT_HIDDEN void RunSystemctl(const char* function, const YString& verb,
                                 const std::vector<YString>& rest) const;
    KRT_HIDDEN void Kill(const char* function, const YString& unit) const;
    KRT_HIDDEN void WriteUnit(const char* function, const YString& unit, const YString& text) const;

    Krt::Environment::ProcessRunner m_runner;
    YString m_root;
};

} // namespace Backup::Util
