// Directories that several processes may make at once.
#pragma once

#include "Krt/File/YDirectory.h"

namespace Agent {

/// Mode 0700. Raises the operating system's error.
void MakeDirectoryUnlessThere(const Krt::File::YDirectory& parent, const Krt::YString& name);

} // namespace Agent
