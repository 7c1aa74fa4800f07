// Makes sure that what was written is on disk.
#pragma once

#include "Krt/Util/YUnxHandle.h"

namespace Agent {

/// Returns once all that was written to the file system on which the directory lies, by anybody, is on the
/// medium. Raises the operating system's error, also that of an earlier write since `directory` was opened.
void SyncFileSystem(const Krt::Util::YUnxHandle& directory);

/// Closes a file that was written. Raises the operating system's error: some file systems tell only now that
/// the data could not be kept.
void CloseWritten(Krt::Util::YUnxHandle& file);

} // namespace Agent
