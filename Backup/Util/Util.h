// What completes the start-up of an agent process, once GetGlobal()->Initialize() has run.
#pragma once

#include "Backup/Export.h"
#include "Krt/File/YPath.h"

namespace Backup::Util {

/// The path with each macro of the global table replaced, and normalised as every path is. Any thread.
BACKUP_API Krt::File::YPath ExpandMacros(const Krt::File::YPath& path);

/// Points the process's logger at the file, whether a log is open or not: for the start, for a rotation and
/// for a changed configuration. The keys consoleOutput and debugOutput of the configuration are read; without
/// the latter, `defaultDebugOutput` names the channels, separated by commas. Channels that aren't named are
/// disabled. Then the banner is written on the channel General. For the agent's control thread, after
/// InstallGlobalLogger; what other threads say while the log is closed is dropped and counted. Raises what
/// opening the log and reading the configuration raise; the log is closed then.
BACKUP_API void OpenOrReopenLog(const Krt::File::YPath& logPath, const Krt::YString& defaultDebugOutput);

} // namespace Backup::Util
