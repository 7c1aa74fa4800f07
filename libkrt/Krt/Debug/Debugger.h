// A broken assumption gives an attached debugger its chance before the error is raised.
#pragma once

#include "Krt/Export.h"

namespace Krt::Debug {

/// Stops in an attached debugger; returns at once when there is none.
KRT_API void EnterDebugger();

} // namespace Krt::Debug
