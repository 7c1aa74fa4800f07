#pragma once

/// @file
/// A stop for an attached debugger before an error is raised.

#include "Krt/Export.h"

namespace Krt::Debug {

/// Stops in an attached debugger by SIGTRAP. Returns at once if there is no debugger. Also returns under a
/// tracer that forwards signals, unless the program has its own handler for SIGTRAP.
KRT_API void EnterDebugger();

} // namespace Krt::Debug
