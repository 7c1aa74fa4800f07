// Who can change a file that steers the program: its configuration, its job, its log. A run as root refuses
// such a file if somebody else can change it or put another one in its place, since that would lend them
// root's rights.
#pragma once

#include <string>
#include <sys/stat.h>

namespace Agent {

/// Whether somebody else than its owner and root may write to the entry, by its mode or by an access list. A
/// group's right counts, save that of root's group.
bool CanOthersWrite(const std::string& path, const struct stat& status);

/// Raises InvalidState, with `what` in front of the path and the reason behind it, unless
///   - each link on the way belongs to root or to the user;
///   - for root, the file and each directory on the way belong to root, and nobody else can write to them. A
///     directory with the sticky bit may be shared, such as /tmp, if what is used in it is root's own and,
///     being no directory, has no further name.
/// A missing file is fine where nobody else can make it. What root can't look at raises the operating
/// system's error; for others it is left to whoever opens the file.
void RequireOwnFile(const std::string& what, const std::string& path);

/// The same for a log. One that is missing in a shared directory is made for root, exclusively and with mode
/// 0640, before somebody else can.
void RequireOwnLog(const std::string& path);

} // namespace Agent
