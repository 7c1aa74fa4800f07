// What the log's banner tells of this build. The values are the build's own, see cmake/BuildInfo.cmake.
#pragma once

namespace Backup::Util::BuildInfo {

extern const char* const Version;   ///< of the project, such as "0.1.0"
extern const char* const Date;      ///< the day of the build in UTC, such as "2026-11-21"
extern const char* const Revision;  ///< of the sources, "-dirty" behind it if they were changed, or "unknown"
extern const char* const Copyright; ///< the whole line

} // namespace Backup::Util::BuildInfo
