#pragma once

/// @file
/// The operations on processes that each platform defines.

#include "Krt/String/YString.h"

#include <spawn.h>

namespace Krt::Environment {

/// Makes the started program inherit only the descriptors 0 to 2. Called after all other settings. Returns
/// 0 or the error number.
int InheritStandardStreamsAlone(posix_spawnattr_t& attributes, posix_spawn_file_actions_t& actions);

/// Returns the ID of a running process of that name other than `except`, or 0 if there is no such process.
/// An `except` of 0 excepts no process.
int FindProcess(const YString& name, int except);

} // namespace Krt::Environment
