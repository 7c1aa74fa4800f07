#pragma once

/// @file
/// The build's properties in the log's banner. cmake/BuildInfo.cmake generates the values.

namespace Backup::Util::BuildInfo {

extern const char* const Version; ///< version of the project, such as "0.1.0"
extern const char* const Date;    ///< day of the build in UTC, such as "2026-11-21"
/// Revision of the sources, followed by "-dirty" if they were changed, or "unknown".
extern const char* const Revision;
extern const char* const Copyright; ///< the whole line

} // namespace Backup::Util::BuildInfo
