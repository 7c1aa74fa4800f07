#pragma once

/// @file
/// The calling thread: its ID, its name and its thread object.

#include "Krt/Export.h"

namespace Krt {
class YString;
}

namespace Krt::Thread {

class YThreadBase;

/// Returns the calling thread's ID, which is never 0 or all ones. Cached, and updated in the child of a
/// fork.
KRT_API unsigned long long GetThreadId();
/// Returns the calling thread's name: that of its thread object, otherwise that of the operating system.
KRT_API YString GetName();
/// Returns the calling thread's object; nullptr on a thread that was not started by YThreadBase.
KRT_API YThreadBase* GetThread();
/// Yields the processor.
KRT_API void Yield();

} // namespace Krt::Thread
