// Directories that several processes may make at once.
#pragma once

#include "Krt/File/YDirectory.h"

namespace Agent {

/// The umask takes bits from the mode. Raises the operating system's error.
void MakeDirectoryUnlessThere(const Krt::File::YDirectory& parent, const Krt::YString& name,
                              unsigned int mode = 0700);

} // namespace Agent
