#pragma once

/// @file
/// The steps that complete the start-up of an agent process after GetGlobal()->Initialize().

#include "Backup/Export.h"
#include "Krt/File/YPath.h"

namespace Backup::Util {

/// Returns the path with each macro of the global table replaced, in normal form. Any thread.
BACKUP_API Krt::File::YPath ExpandMacros(const Krt::File::YPath& path);

/// Directs the process's logger to the file, whether or not a log is open: at the start, for a rotation and
/// after a change of the configuration. Reads the keys consoleOutput and debugOutput of the configuration.
/// Without debugOutput, `defaultDebugOutput` names the channels, separated by commas. Channels that are not
/// named are disabled. Writes the banner on the channel General. Call it from the agent's control thread,
/// after InstallGlobalLogger. Messages of other threads while the log is closed are dropped and counted.
/// Raises the errors of opening the log and of reading the configuration; the log is closed then.
BACKUP_API void OpenOrReopenLog(const Krt::File::YPath& logPath, const Krt::YString& defaultDebugOutput);

} // namespace Backup::Util
