// What a platform supplies to the operations on processes.
#pragma once

#include "Krt/String/YString.h"

#include <spawn.h>

namespace Krt::Environment {

/// Makes what is started inherit the descriptors 0 to 2 and no others. Returns 0 or the error's number. Comes
/// after all other settings.
int InheritStandardStreamsAlone(posix_spawnattr_t& attributes, posix_spawn_file_actions_t& actions);

/// The id of a running process of that name other than `except`; 0 if there is none.
int FindProcess(const YString& name, int except);

} // namespace Krt::Environment
