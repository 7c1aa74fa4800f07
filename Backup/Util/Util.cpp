#include "Backup/Util/Util.h"

#include "Backup/Core/YGlobal.h"
#include "Backup/Util/BuildInfo.h"

#include "Krt/Log/LogSite.h"
#include "Krt/Profile/YProfile.h"

namespace Backup::Util {

using Krt::MessageType;
using Krt::YString;

namespace {

void EnableConfiguredChannels(const YString& defaultDebugOutput)
{
    const auto channels =
        Krt::Profile::OpenSystem()->Get<YString>("configuration", "debugOutput", defaultDebugOutput);
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages(channels.SectionVector(',', true, true));
}

void WriteBanner()
{
    KRT_LOG_FREE(MessageType::General, "Kestrelon Backup Agent " << BuildInfo::Version << "-rel ("
                                                                 << BuildInfo::Date << " "
                                                                 << BuildInfo::Revision << ")");
    KRT_LOG_FREE(MessageType::General, BuildInfo::Copyright);
    KRT_LOG_FREE(MessageType::General, "Startup log flags: " << YString::VectorSection(
                                           ',', Krt::Log::GetGlobalRegistrar()->GetEnabledMessages()));
}

} // namespace

Krt::File::YPath ExpandMacros(const Krt::File::YPath& path)
{
    return GetGlobal()->GetMacros().Expand(path.AsUnixPath(false));
}

void OpenOrReopenLog(const Krt::File::YPath& logPath, const YString& defaultDebugOutput)
{
    Krt::Log::YLog& log = *Krt::Log::GetGlobalLogger();
    log.Close();
    Krt::Log::YLog::Param param(logPath);
    param.copyToConsole = Krt::Profile::OpenSystem()->Get<bool>("configuration", "consoleOutput", false);
    param.wholeLines = true;
    log.Open(param);
    try {
        EnableConfiguredChannels(defaultDebugOutput);
    } catch (...) {
        log.Close();
        throw;
    }
    WriteBanner();
}

} // namespace Backup::Util
