// Makes sure that what was written is on disk.
#pragma once

#include "Krt/Util/YUnxHandle.h"

namespace Agent {

/// Returns once all that was written to the file system on which the directory lies, by anybody, is on the
/// medium. Raises the operating system's error, also that of an earlier write since `directory` was opened.
void SyncFileSystem(const Krt::Util::YUnxHandle& directory);

} // namespace Agent
