// A broken assumption gives an attached debugger its chance before the error is raised.
#pragma once

#include "Krt/Export.h"

namespace Krt::Debug {

/// Stops in an attached debugger by SIGTRAP. Returns at once if there is no debugger, also under a tracer
/// that passes signals on, unless the program has a handler of its own for SIGTRAP.
KRT_API void EnterDebugger();

} // namespace Krt::Debug
