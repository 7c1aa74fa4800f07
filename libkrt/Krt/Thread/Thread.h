// The calling thread: its id, its name and its thread object.
#pragma once

#include "Krt/Export.h"

namespace Krt {
class YString;
}

namespace Krt::Thread {

class YThreadBase;

/// The caller's id, never 0 and never all ones; cached, and renewed in the child of a fork.
KRT_API unsigned long long GetThreadId();
/// The caller's name: that of its thread object, else the one that the operating system knows.
KRT_API YString GetName();
/// The caller's thread object; null on a thread that this layer did not start.
KRT_API YThreadBase* GetThread();
/// Gives up the processor.
KRT_API void Yield();

} // namespace Krt::Thread
