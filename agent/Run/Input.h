// Inputs that users name. Each may be a pipe or a terminal, where the other side can be slow.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <string>

namespace Agent {

/// Opens a file for reading, as Krt::Util::OpenHandle does. Waits for the writer of a FIFO, and raises
/// InvalidState when the user interrupts meanwhile.
Krt::Util::OsResult<Krt::Util::YUnxHandle> OpenInput(const std::string& path);

/// Waits until there is something to read, or the end. Raises InvalidState when the user interrupts.
void WaitForInput(int descriptor);

} // namespace Agent
