#include "Backup/Util/Unix/Mac/YMacServiceManager.h"

#include "Krt/Environment/Process.h"
#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/File/YFile.h"
#include "Krt/Type/YUuid.h"
#include "Krt/Util/Quotify.h"

#include <unistd.h>

namespace Backup::Util {

using Krt::File::YPath;
using Krt::Time::YDuration;

namespace {

YString PropertyList(const YString& name, const YPath& program)
{
    Krt::YStream list{YString()};
    list << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         << "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         << "<plist version=\"1.0\">\n"
         << "<dict>\n"
         << "\t<key>Program</key>\n"
         << "\t<string>" << program << "</string>\n"
         << "\t<key>RunAtLoad</key>\n"
         << "\t<true/>\n"
         << "\t<key>KeepAlive</key>\n"
         << "\t<true/>\n"
         << "\t<key>Label</key>\n"
         << "\t<string>" << name << "</string>\n"
         << "</dict>\n"
         << "</plist>\n";
    return list;
}

YString Quoted(const YPath& path)
{
    return Krt::Util::QuotifyEx(path, '"');
}

// launchctl connects to the launchd of the real user.
void BecomeRoot(const char* function)
{
    if (const int error = Krt::Util::CallSystem([] { return setuid(0); }).error)
        KRT_RAISE_OS_AS(function, MessageType::General, error);
}

} // namespace

void YMacServiceManager::WaitForServiceCreate(const YString&, const YDuration&) {}

void YMacServiceManager::WaitForServiceStart(const YString&, const YDuration&)
{
    KRT_RAISE(ErrorCode::NotImplemented, "WaitForServiceStart not implemented for Mac");
}

void YMacServiceManager::WaitForServiceStop(const YString&, const YDuration&)
{
    KRT_RAISE(ErrorCode::NotImplemented, "WaitForServiceStop not implemented for Mac");
}

void YMacServiceManager::WaitForServiceDelete(const YString&, const YDuration&) {}

bool YMacServiceManager::Exists(const YString& name)
{
    return Krt::File::DoesFileExist(GetConfigFilePath(name));
}

void YMacServiceManager::Install(const YString& name, const YString&, const YString&, const YPath& program,
                                 const std::vector<YString>&, const YDuration&)
{
    const YPath directory = Krt::File::GetPathMap(Krt::File::TemporaryFiles);
    const YPath temporary = directory.Append(Krt::Type::YUuid::Random().GetString());
    Krt::File::YFile file(temporary, Krt::File::YFile::CreateAndWrite);
    file.Write(PropertyList(name, program));
    file.Close();

    const YString target = Quoted(GetConfigFilePath(name));
    Krt::YStream line{YString()};
    line << "mv " << Quoted(temporary) << " " << target << " && "
         << "chown root:wheel " << target << " && "
         << "chmod 644 " << target;
    RunElevated("/bin/sh", {"-c", line}, "mv chown chmod (for launchd plist)", __func__);
}

void YMacServiceManager::Delete(const YString& name, const YDuration& timeout)
{
    Stop(name, true, timeout);
    const YPath list = GetConfigFilePath(name);
    if (Krt::File::DoesFileExist(list))
        RunElevated("/bin/sh", {"-c", "rm " + Quoted(list)}, "rm (for launchd plist)", __func__);
}

void YMacServiceManager::Start(const YString& name, const YDuration&)
{
    BecomeRoot(__func__);
    RunElevated("/bin/launchctl", {"load", "-w", GetConfigFilePath(name)}, "launchctl load", __func__);
}

void YMacServiceManager::Stop(const YString& name, bool, const YDuration&)
{
    BecomeRoot(__func__);
    RunElevated("/bin/launchctl", {"unload", GetConfigFilePath(name)}, "launchctl unload", __func__);
}

void YMacServiceManager::Restart(const YString& name, bool force, const YDuration& timeout)
{
    Stop(name, force, timeout);
    Start(name, timeout);
}

bool YMacServiceManager::IsRunning(const YString& name)
{
    try {
        Krt::Environment::FindProcessByName(name, false);
        return true;
    } catch (...) {
        return false;
    }
}

YPath YMacServiceManager::GetConfigFilePath(const YString& name) const
{
    return GetListDirectory().Append(name + ".plist");
}

int YMacServiceManager::Execute(const YPath& program, const std::vector<YString>& arguments) const
{
    return Krt::Environment::ExecuteProcess(program, arguments);
}

YPath YMacServiceManager::GetListDirectory() const
{
    return "/Library/LaunchDaemons";
}

// `what` names the commands in the error.
void YMacServiceManager::RunElevated(const YPath& program, const std::vector<YString>& arguments,
                                     const char* what, const char* function) const
{
    const int status = Krt::Environment::ExecuteProcessElevated(
        program, arguments, true,
        [this](const YPath& command, const std::vector<YString>& rest) { return Execute(command, rest); });
    if (status != 0)
        KRT_RAISE_AS(function, MessageType::General, ErrorCode::ProcessFailed,
                     what << " exited with status: " << status);
}

} // namespace Backup::Util
