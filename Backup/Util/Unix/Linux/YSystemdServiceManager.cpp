#include "Backup/Util/Unix/Linux/YSystemdServiceManager.h"

#include "Backup/Util/Unix/Linux/SystemdUnit.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/YDirectory.h"
#include "Krt/File/YEntry.h"
#include "Krt/Type/YUuid.h"
#include "Krt/Util/YScope.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace Backup::Util {

using Krt::File::YDirectory;
using Krt::File::YPath;
using Krt::Time::YDuration;

namespace {

constexpr const char* Systemctl = "/bin/systemctl";
// Exit statuses of "systemctl is-active".
constexpr int Active = 0;
constexpr int NotActive = 3;
constexpr int NoSuchUnit = 4;

// The temporary file does not have the name of a unit, so systemd ignores it.
void ReplaceUnit(const YPath& directoryPath, const YString& unit, const YString& text)
{
    const YDirectory directory = YDirectory::OpenFollowing(directoryPath);
    const YString temporary = "." + Krt::Type::YUuid::Random().GetString();
    const Krt::Util::YUnxHandle file = directory.CreateFile(temporary);
    const Krt::Util::YScope cleanUp([&] { directory.RemoveFile(temporary); });
    Krt::File::Write(file, 0, text.Bytes().size(), text.CStr());
    Krt::File::YEntry(file).SetMode(0644);
    Krt::File::Sync(file);
    directory.Rename(temporary, directory, unit);
    Krt::File::Sync(directory.GetHandle());
}

// Returns the title that systemd shows next to the service's name.
YString TitleOf(const YString& name, const YString& displayName, const YString& description)
{
    if (displayName.IsEmpty())
        return description.IsEmpty() ? name : description;
    return description.IsEmpty() ? displayName : displayName + ": " + description;
}

// Raises "Service NAME STATE after ..." at the timeout.
template <class Reached>
void WaitUntil(const char* function, const YString& name, const char* otherState, const YDuration& timeout,
               Reached reached)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::nanoseconds pause = std::chrono::milliseconds(100);
    const std::chrono::nanoseconds limit = std::max(timeout.AsChrono(), std::chrono::nanoseconds(0));
    const Clock::time_point start = Clock::now();
    while (!reached()) {
        const std::chrono::nanoseconds left = limit - (Clock::now() - start);
        if (left.count() <= 0)
            KRT_RAISE_AS(function, MessageType::General, ErrorCode::LockTimeout,
                         "Service " << name << " " << otherState << " after "
                                    << static_cast<unsigned long long>(limit.count() / 1000000) << " ms");
        std::this_thread::sleep_for(std::min(left, pause));
    }
}

} // namespace

YSystemdServiceManager::YSystemdServiceManager()
    : YSystemdServiceManager(Krt::Environment::ExecuteProcess, YString())
{}

YSystemdServiceManager::YSystemdServiceManager(Krt::Environment::ProcessRunner runner, YString root)
    : m_runner(std::move(runner)), m_root(std::move(root))
{}

YPath YSystemdServiceManager::GetUnitDirectory() const
{
    return m_root + "/etc/systemd/system";
}

// Uses the test of sd_booted(3).
void YSystemdServiceManager::RequireSystemd(const char* function) const
{
    if (!Krt::File::DoesFileExist(m_root + "/run/systemd/system"))
        KRT_RAISE_AS(function, MessageType::General, ErrorCode::NotSupported,
                     "Services are systemd's, and this machine doesn't run systemd");
}

// Runs "systemctl VERB [OPTION] [-- UNIT]". The unit's name may begin with a hyphen.
void YSystemdServiceManager::RunSystemctl(const char* function, const YString& verb,
                                          const std::vector<YString>& rest) const
{
    RequireSystemd(function);
    std::vector<YString> arguments{verb};
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    const int status = Krt::Environment::ExecuteProcessElevated(Systemctl, arguments, true, m_runner);
    if (status != 0)
        KRT_RAISE_AS(function, MessageType::General, ErrorCode::ProcessFailed,
                     "systemctl " << verb << " exited with status: " << status);
}

// The exit status is ignored, since a service that doesn't run can't be killed: the command that follows
// reports whether the service has ended.
void YSystemdServiceManager::Kill(const char* function, const YString& unit) const
{
    RequireSystemd(function);
    Krt::Environment::ExecuteProcessElevated(Systemctl, {"kill", "--signal=SIGKILL", "--", unit}, true,
                                             m_runner);
}

// The caller knows neither the temporary name nor the steps, so the error names the unit.
void YSystemdServiceManager::WriteUnit(const char* function, const YString& unit, const YString& text) const
{
    try {
        ReplaceUnit(GetUnitDirectory(), unit, text);
    } catch (const Krt::Exception::YError& error) {
        KRT_RAISE_OS_AS(function, MessageType::General, error.GetOsError(),
                        "Failed to write " << GetUnitDirectory().Append(unit));
    }
}

void YSystemdServiceManager::WaitForServiceCreate(const YString& name, const YDuration& timeout)
{
    WaitUntil(__func__, name, "doesn't exist", timeout, [&] { return Exists(name); });
}

void YSystemdServiceManager::WaitForServiceStart(const YString& name, const YDuration& timeout)
{
    WaitUntil(__func__, name, "isn't running", timeout, [&] { return IsRunning(name); });
}

void YSystemdServiceManager::WaitForServiceStop(const YString& name, const YDuration& timeout)
{
    WaitUntil(__func__, name, "is still running", timeout, [&] { return !IsRunning(name); });
}

void YSystemdServiceManager::WaitForServiceDelete(const YString& name, const YDuration& timeout)
{
    WaitUntil(__func__, name, "still exists", timeout, [&] { return !Exists(name); });
}

bool YSystemdServiceManager::Exists(const YString& name)
{
    return Krt::File::DoesFileExist(GetUnitDirectory().Append(GetServiceUnitName(name)));
}

void YSystemdServiceManager::Install(const YString& name, const YString& displayName,
                                     const YString& description, const YPath& program,
                                     const std::vector<YString>& arguments, const YDuration& timeout)
{
    const YString unit = GetServiceUnitName(name);
    const YString text = MakeServiceUnit(TitleOf(name, displayName, description), program, arguments);
    RequireSystemd(__func__);
    WriteUnit(__func__, unit, text);
    RunSystemctl(__func__, "daemon-reload", {});
    RunSystemctl(__func__, "enable", {"--quiet", "--", unit});
    WaitForServiceCreate(name, timeout);
}

void YSystemdServiceManager::Delete(const YString& name, const YDuration& timeout)
{
    const YString unit = GetServiceUnitName(name);
    const YPath file = GetUnitDirectory().Append(unit);
    RequireSystemd(__func__);
    const bool hasUnitFile = Exists(name);
    // sudo would stop and disable the service for a user who then can't remove the file.
    if (hasUnitFile)
        KRT_SYSCALL(faccessat(AT_FDCWD, GetUnitDirectory().CStr(), W_OK | X_OK, AT_EACCESS),
                    "Failed to delete " << file);
    Stop(name, false, timeout);
    if (!hasUnitFile)
        return;
    RunSystemctl(__func__, "disable", {"--quiet", "--", unit});
    Krt::File::DeleteFile(file);
    RunSystemctl(__func__, "daemon-reload", {});
    WaitForServiceDelete(name, timeout);
}

void YSystemdServiceManager::Start(const YString& name, const YDuration& timeout)
{
    RunSystemctl(__func__, "start", {"--", GetServiceUnitName(name)});
    WaitForServiceStart(name, timeout);
}

void YSystemdServiceManager::Stop(const YString& name, bool force, const YDuration& timeout)
{
    const YString unit = GetServiceUnitName(name);
    if (force)
        Kill(__func__, unit);
    RunSystemctl(__func__, "stop", {"--", unit});
    WaitForServiceStop(name, timeout);
}

void YSystemdServiceManager::Restart(const YString& name, bool force, const YDuration& timeout)
{
    const YString unit = GetServiceUnitName(name);
    if (force)
        Kill(__func__, unit);
    RunSystemctl(__func__, "restart", {"--", unit});
    WaitForServiceStart(name, timeout);
}

bool YSystemdServiceManager::IsRunning(const YString& name)
{
    const YString unit = GetServiceUnitName(name);
    RequireSystemd(__func__);
    const int status = m_runner(Systemctl, {"is-active", "--quiet", "--", unit});
    KRT_RAISE_UNLESS(status == Active || status == NotActive || status == NoSuchUnit,
                     ErrorCode::ProcessFailed, "systemctl is-active exited with status: " << status);
    return status == Active;
}

} // namespace Backup::Util
