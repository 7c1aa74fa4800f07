// Makes sure that what was written is on disk.
#pragma once

#include "Krt/Util/YUnxHandle.h"

namespace Agent {

/// Returns once all that any process wrote to the file system of the directory is on the medium. Raises the
/// operating system's error, also that of an earlier write since `directory` was opened.
void SyncFileSystem(const Krt::Util::YUnxHandle& directory);

} // namespace Agent
