#include "agent/Cli/LogOptions.h"

#include "agent/Run/Configuration.h"
#include "agent/Run/FileGuard.h"

#include "Backup/Util/Util.h"

#include "Krt/Log/YLog.h"

#include <CLI/CLI.hpp>

namespace Agent {

using Krt::YString;

void LogOptions::Register(CLI::App& program)
{
    CLI::Option* const log =
        program
            .add_option("--log", m_path,
                        "Append a log to FILE, which may contain macros such as ${serviceName}")
            ->type_name("FILE");
    program
        .add_option(
            "--debug", m_channels,
            "The log's channels, separated by commas; debugOutput in the configuration takes precedence")
        ->type_name("CHANNELS")
        ->capture_default_str()
        ->needs(log);
}

void LogOptions::Open() const
{
    if (m_path.empty())
        return;
    const Krt::File::YPath path = Backup::Util::ExpandMacros(YString(std::string_view(m_path)));
    RequireOwnLog(path.Bytes());
    RequireSwitches({"consoleOutput"});
    Krt::Log::InstallGlobalLogger();
    Backup::Util::OpenOrReopenLog(path, YString(std::string_view(m_channels)));
}

} // namespace Agent
