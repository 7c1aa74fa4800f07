// The directory that a restore writes into, reached so that nobody else decides where it lies.
#pragma once

#include "agent/Run/Report.h"

#include "Krt/File/YDirectory.h"

#include <string>

namespace Agent {

/// Opens the directory, and makes it with its parents where they are missing, mode 0777 less the umask. The
/// way there is gone name by name through descriptors, so what was checked is what is opened. Raises
/// InvalidState
///   - for a link on it that belongs neither to root nor to the user;
///   - for root, where others can write to a directory on it, for a link there, save root's own with one name
///     under a sticky bit, and for a directory there that belongs neither to root nor to the owner of the one
///     that it lies in.
/// Raises InvalidArgument, before anything is made there, for the store and what lies in it, and otherwise
/// the operating system's error. Where others can put something else in the target's place later, root is
/// told.
Krt::File::YDirectory OpenTarget(const std::string& path, const Krt::File::YDirectory& store, Report& report);

} // namespace Agent
