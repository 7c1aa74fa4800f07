// The directory that a restore writes into, reached so that no other user decides where it is.
#pragma once

#include "agent/Run/Report.h"

#include "Krt/File/YDirectory.h"

#include <string>

namespace Agent {

/// Opens the directory, after creating it and its missing parent directories with mode 0777 less the umask.
/// Raises InvalidState
///   - for a symlink on the path that belongs neither to root nor to the user, and for more than 40 symlinks;
///   - for root, for a symlink in a directory that belongs to another user or that others can write to. Only
///     root's own symlink without a further hard link is followed in root's directory with the sticky bit;
///   - for root, for a directory that belongs neither to root nor to the owner of its parent directory, if
///     others can write to that parent directory.
/// Raises InvalidArgument, before anything is created there, for the repository's directory and what is in
/// it, and otherwise the operating system's error. `repository` is null if it is not on this machine. Notes
/// in the report, for root, the directories in which others can replace what is restored.
Krt::File::YDirectory OpenTarget(const std::string& path, const Krt::File::YDirectory* repository,
                                 Report& report);

} // namespace Agent
