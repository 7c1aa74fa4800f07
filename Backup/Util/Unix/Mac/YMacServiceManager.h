// YMacServiceManager: services of launchd. A service is a property list in /Library/LaunchDaemons; launchctl
// and a shell do the work with root's rights. Nothing here is bound to macOS but what these commands mean, so
// it is built and tested everywhere. Stateless; Start and Stop make the whole process root's and leave it so.
#pragma once

#include "Backup/Util/IServiceManager.h"

namespace Backup::Util {

class BACKUP_API YMacServiceManager : public IServiceManager
{
public:
    /// These two return at once: the property list is all that there is to a service.
    void WaitForServiceCreate(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// This one and the next always raise NotImplemented.
    void WaitForServiceStart(const YString& name, const Krt::Time::YDuration& timeout) override;
    void WaitForServiceStop(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Returns at once.
    void WaitForServiceDelete(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Whether the property list exists, loaded or not.
    bool Exists(const YString& name) override;
    /// Only the name and the program are used, and both stand in the list as they are, unescaped. A temporary
    /// file stays behind after a failure.
    void Install(const YString& name, const YString& displayName, const YString& description,
                 const Krt::File::YPath& program, const std::vector<YString>& arguments,
                 const Krt::Time::YDuration& timeout) override;
    /// A service that can't be stopped is not deleted; one without a list only is stopped.
    void Delete(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Here and in Stop, a process that can't become root gets the operating system's error with no text.
    void Start(const YString& name, const Krt::Time::YDuration& timeout) override;
    /// Forced or not is the same.
    void Stop(const YString& name, bool force, const Krt::Time::YDuration& timeout) override;
    /// Stop, then Start.
    void Restart(const YString& name, bool force, const Krt::Time::YDuration& timeout) override;
    /// Whether a process other than this one bears the service's name. Never raises.
    bool IsRunning(const YString& name) override;

    /// Where the service's property list stands.
    Krt::File::YPath GetConfigFilePath(const YString& name) const;

    /// The directory in which /Library is to be; it must outlive its use. Null goes back to the system's.
    static void SetRootForTesting(const char* root);
};

} // namespace Backup::Util
