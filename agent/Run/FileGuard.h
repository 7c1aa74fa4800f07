// Root takes its configuration, job file and log only from where no other user can change or replace them:
// such a file would lend root's rights to that user.
#pragma once

#include <string>

namespace Agent {

/// Raises InvalidState, with `what` in front of the path and the reason after it, unless
///   - each symlink on the path belongs to root or to the user, and there are at most 40;
///   - for root, the file and each directory on the path belong to root, and other users cannot write to
///     them. A directory with the sticky bit, such as /tmp, may be shared if what is used in it belongs to
///     root and, unless it is a directory, has no further hard link.
/// A missing file is accepted where no other user can create it. An entry that root cannot examine raises the
/// operating system's error. An ordinary user's check ends there, and opening the file fails.
void RequireOwnFile(const std::string& what, const std::string& path);

/// RequireOwnFile for a log. If it is missing in a shared directory, it is created for root, exclusively and
/// with mode 0640, before another user can.
void RequireOwnLog(const std::string& path);

} // namespace Agent
