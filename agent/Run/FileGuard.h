// Root only accepts a configuration, job file and log that no other user can change or replace: such a file
// would lend root's rights to that user.
#pragma once

#include <string>

namespace Agent {

/// Raises InvalidState, with `what` before the path and the reason after it, unless
///   - each symlink on the path belongs to root or to the user, and there are at most 40;
///   - for root, the file and each directory on the path belong to root, and other users cannot write to
///     them. A directory with the sticky bit, such as /tmp, may be shared if what is used in it belongs to
///     root and, unless it is a directory, has no further hard link.
/// A missing file is accepted if no other user can create it. If root cannot examine an entry, the operating
/// system's error is raised. For an ordinary user the check ends there, and opening the file fails.
void RequireOwnFile(const std::string& what, const std::string& path);

/// The reason for which RequireOwnFile would refuse the file; empty if it accepts the file, or if the file
/// can't be examined.
std::string FindRisk(const std::string& path);

/// RequireOwnFile for a log. If the log is missing in a shared directory, it is created for root, exclusively
/// and with mode 0640, before another user can create it. A missing directory is reported as such.
void RequireOwnLog(const std::string& path);

} // namespace Agent
