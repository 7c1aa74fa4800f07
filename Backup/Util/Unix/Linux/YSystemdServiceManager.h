// YSystemdServiceManager: services of systemd. A service is a unit file in /etc/systemd/system; systemctl,
// run without a shell, does the rest, with root's rights where it takes them. Each operation but Exists
// raises NotSupported on a machine that systemd doesn't run, and InvalidArgument for a name that can't be a
// unit's, before anything is done. Stateless.
#pragma once

#include "Backup/Util/IServiceManager.h"

namespace Backup::Util {

class BACKUP_API YSystemdServiceManager : public IServiceManager
{
public:
    /// The waits look at the state again and again, at least once, and raise LockTimeout when the time is
    /// over. A negative time-out counts as zero.
    void WaitForServiceCreate(const YString& name, const Krt::Time::YDuration& timeout) override;
    void WaitForServiceStart(const YString& name, const Krt::Time::YDuration& timeout) override;
    void WaitForServiceStop(const YString& name, const Krt::Time::YDuration& timeout) override;
    void WaitForServiceDelete(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Whether the unit file exists.
    bool Exists(const YString& name) override;
    /// Writes the unit file, which takes the right to do so, and enables it. At any moment there is either
    /// the former file or the new one. What a unit can't hold is refused, see MakeServiceUnit.
    void Install(const YString& name, const YString& displayName, const YString& description,
                 const Krt::File::YPath& program, const std::vector<YString>& arguments,
                 const Krt::Time::YDuration& timeout) override;
    /// Stops it unforced, disables it and removes the unit file, which takes the right to do so: without it
    /// the operating system's error is raised before anything is done. A service that can't be stopped is not
    /// deleted. A service whose unit file is in another directory is only stopped.
    void Delete(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// systemctl comes back when the program runs, or could not be run; the time-out is for staying so.
    void Start(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// systemd itself ends a service that doesn't end within its own time-out; forced, it is killed at once.
    void Stop(const YString& name, bool force, const Krt::Time::YDuration& timeout) override;
    /// In one step, so that a service can restart itself.
    void Restart(const YString& name, bool force, const Krt::Time::YDuration& timeout) override;
    /// What systemctl takes for active: not one that is about to start or to stop. Raises if systemctl can't
    /// tell.
    bool IsRunning(const YString& name) override;

    /// The directory in which /etc and /run are to be; it must outlive its use. Null goes back to the
    /// system's.
    static void SetRootForTesting(const char* root);
};

} // namespace Backup::Util
